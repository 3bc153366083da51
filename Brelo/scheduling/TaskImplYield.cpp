// The quantum of a task, and when it is asked to give way.

#include "Brelo/TaskImpl.h"
#include "Brelo/TaskSchedulerBase.h"
#include "Brelo/TaskSchedulerHistory.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/platform/Ticks.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/SteadyNow.h"

namespace Brelo {

using Impl::schedulerTrace;
using Impl::steadyNow;

void TaskImpl::taskQuantumIs(TaskTimeDuration quantum) {
  BRELO_SCHEDULER_ASSERT(static_cast<double>(quantum.count()) <= 1e9, "Quantum: ", quantum.count());
  taskQuantumNoCheckIs(quantum);
}

void TaskImpl::taskQuantumNoCheckIs(TaskTimeDuration quantum) {
  if (quantum == taskQuantum_) return;
  BRELO_SCHEDULER_ASSERT(quantum.count() >= 1, "Quantum: ", quantum.count());
  taskQuantum_ = quantum;
  unsigned short const level = quantum == taskScheduler_->defaultTaskQuantum() ? 9 : 4;
  BRELO_TRACE(schedulerTrace, level, "TaskImpl", "Set quantum {} to {}", *this, quantum);
}

bool TaskImpl::taskShouldYield() const {
  BRELO_SCHEDULER_ASSERT(taskCurrentlyRunning_ || taskRunCount == 0,
                         "taskCurrentlyRunning: ", taskCurrentlyRunning_,
                         " taskRunCount: ", taskRunCount);
  switch (taskShouldYieldMode_) {
    case yieldModeClock:
      return clockSaysYield();
    case yieldModeVirtualTime:
      return taskScheduler_->virtualRunTime() >= static_cast<double>(taskQuantum_.count()) / 1e9;
    case yieldModeRatio:
      ++taskTestYieldCount_;
      return taskTestYieldCount_ % taskTestYieldRatioEffective_ == 0;
  }
  Impl::schedulerFail(__func__, __LINE__, "Unexpected value ", unsigned{taskShouldYieldMode_});
}

bool TaskImpl::clockSaysYield() const {
  std::uint64_t const ticks = Impl::ticks();
  if (ticks >= taskYieldCheckTicks_ &&
      ticks < taskYieldCheckTicks_ + Impl::approxTicksIn500Usec()) {
    return false;
  }
  taskYieldCheckTicks_ = ticks;
  TaskTimePoint const now = steadyNow();
  if (now >= taskRunStartTime_ && taskQuantum_ > TaskTimeDuration(now - taskRunStartTime_)) {
    return false;
  }
  // Once the quantum is gone, every question looks at the clock again.
  taskYieldCheckTicks_ = 0;
  return true;
}

void TaskImpl::taskShouldYieldModeIs(TaskShouldYieldMode mode) {
  if (mode == taskShouldYieldMode_) return;
  taskShouldYieldMode_ = mode;
  if (mode == yieldModeVirtualTime && taskCurrentlyRunning_) {
    taskScheduler_->virtualRunStarts();
  }
}

void TaskImpl::taskShouldYieldModeReevaluate() {
  TaskSchedulerRoot const& root = taskScheduler_->root();
  unsigned char const ratio =
      taskTestYieldRatio_ != 0 ? taskTestYieldRatio_ : root.taskTestYieldRatio();
  taskTestYieldRatioEffectiveIs(ratio);
  if (ratio != 0) {
    taskShouldYieldModeIs(yieldModeRatio);
  } else {
    taskShouldYieldModeIs(root.virtualTime() ? yieldModeVirtualTime : yieldModeClock);
  }
}

void TaskImpl::taskTestYieldRatioIs(unsigned char ratio) {
  if (ratio == taskTestYieldRatio_) return;
  taskTestYieldRatio_ = ratio;
  taskHistoryInsert(steadyNow(), ratio != 0 ? TaskSchedulerEventType::forceYieldOn
                                            : TaskSchedulerEventType::forceYieldOff);
  taskShouldYieldModeReevaluate();
}

void TaskImpl::taskTestYieldRatioEffectiveIs(unsigned char ratio) {
  if (ratio == taskTestYieldRatioEffective_) return;
  bool const notify = (ratio == 0) != (taskTestYieldRatioEffective_ == 0);
  taskTestYieldCount_ = 0;
  taskTestYieldRatioEffective_ = ratio;
  if (notify) taskScheduler_->taskForceYieldInTestNotify(this, ratio != 0);
}

}  // namespace Brelo
