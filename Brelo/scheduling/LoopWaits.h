#pragma once

#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/platform/WaitObserver.h"

namespace Brelo {

/// Passes the waits of the thread's loop on to a root's observers, while some hear of them.
class TaskSchedulerRoot::LoopWaits : Impl::WaitObserver {
 public:
  explicit LoopWaits(TaskSchedulerRoot const& root) : root_(root) { Impl::waitObserverAdd(*this); }
  LoopWaits(LoopWaits const&) = delete;
  LoopWaits& operator=(LoopWaits const&) = delete;
  ~LoopWaits() override { Impl::waitObserverRemove(*this); }

  void loopWaited(std::int64_t nanoseconds) noexcept override;

 private:
  TaskSchedulerRoot const& root_;
};

}  // namespace Brelo
