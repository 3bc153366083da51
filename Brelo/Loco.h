#pragma once

#include "Brelo/Export.h"

namespace Brelo::Platform {

/// The interface of the global lock, the outermost lock of the library. It guards the library's
/// few shared tables.
///
/// A thread that holds the lock outside the library, as the thread that runs the host's loop
/// does, passes through without touching it. A guard inside a guard on a thread that took the lock
/// through the outer one leaves the lock held when both are gone: do not nest them.
class BRELO_EXPORT Loco {
 public:
  /// Waits while another thread holds it. A failure throws `std::system_error`.
  virtual void lock() = 0;
  /// Undoes the latest `lock()` if that took anything.
  virtual void unlock() = 0;
  /// The calling thread holds it, as far as the implementation can tell.
  virtual bool owns_lock() const = 0;
  virtual ~Loco() = default;
};

/// The process's global lock, the host's activity lock. Any thread.
BRELO_EXPORT Loco& loco();

/// Holds `loco()` for a scope.
class LocoGuard {
 public:
  LocoGuard() : loco_(loco()) { loco_.lock(); }
  LocoGuard(LocoGuard const&) = delete;
  LocoGuard& operator=(LocoGuard const&) = delete;
  ~LocoGuard() { loco_.unlock(); }

 private:
  Loco& loco_;
};

}  // namespace Brelo::Platform
