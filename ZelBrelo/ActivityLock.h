#pragma once

#include "Brelo/Export.h"
#include "Brelo/Loco.h"
#include "Zel/Lock.h"

namespace ZelBrelo {

/// The global lock over the host's activity mutex, which knows when the calling thread holds it
/// already. `owned_` tells about the latest `lock()` of the process only.
class BRELO_EXPORT ActivityLock : public Brelo::Platform::Loco {
 public:
  /// The host's lock, which outlives this.
  explicit ActivityLock(Zel::Lock* lock) : lock_(lock) {}

  /// Returns at once on a thread that holds the mutex. Another failure raises
  /// `std::system_error`.
  void lock() override;
  /// Does nothing unless the latest `lock()` took the mutex.
  void unlock() override;
  /// Compares a kernel thread id with a `pthread_t`, which are never equal on this C library.
  bool owns_lock() const override;

 private:
  Zel::Lock* lock_;
  bool owned_ = false;
};

}  // namespace ZelBrelo
