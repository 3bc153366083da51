#pragma once

#include <signal.h>

#include <initializer_list>

namespace BreloDaemon::Impl {

/// Keeps signals blocked in its thread, each until the last that wants it has gone and unless it
/// was blocked before. Children made by `fork()` have them unblocked.
class BlockedSignals {
 public:
  /// A number that is no signal, or one that cannot be blocked, is an assertion.
  explicit BlockedSignals(std::initializer_list<int> signals);
  BlockedSignals(BlockedSignals const&) = delete;
  BlockedSignals& operator=(BlockedSignals const&) = delete;
  ~BlockedSignals() { release(); }

  sigset_t const& signals() const { return signals_; }
  /// As the destructor.
  void release();

 private:
  sigset_t signals_;
};

}  // namespace BreloDaemon::Impl
