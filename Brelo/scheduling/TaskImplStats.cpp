// The counters that a task keeps of its runs and its work.

#include <algorithm>

#include "Brelo/TaskGroup.h"
#include "Brelo/TaskImpl.h"

namespace Brelo {

void TaskImpl::doUpdateSchedulingLatency(TaskTimePoint const& now) {
  taskLastSchedulingLatency = now - taskScheduleTime_;
  taskSchedulingLatencyHighWaterMark =
      std::max(taskSchedulingLatencyHighWaterMark, taskLastSchedulingLatency);
}

bool TaskImpl::countViolation(TaskTimeDuration used) {
  TaskQuantumViolation const violation = taskQuantumViolation(used, taskQuantum_);
  if (violation == TaskQuantumViolation::none) return false;
  ++(violation == TaskQuantumViolation::of200 ? taskQuantumViolation200 : taskQuantumViolation500);
  return true;
}

void TaskImpl::taskWorkCountInc(unsigned long count) {
  auto const units = static_cast<float>(count);
  taskWorkCountTotal += count;
  if (!taskWorkCountHighWaterMark.isSet()) {
    taskWorkCountDecayAvg = units;
  } else {
    taskWorkCountDecayAvg = (9.0F * taskWorkCountDecayAvg + units) / 10.0F;
    if (count <= taskWorkCountHighWaterMark.value()) return;
  }
  taskWorkCountHighWaterMark = TaskMaybeU32(static_cast<std::uint32_t>(count));
}

void TaskImpl::taskWorkPendingIs(unsigned pending) {
  taskWorkPending = pending;
  if (!taskWorkPendingHighWaterMark.isSet() || pending > taskWorkPendingHighWaterMark.value()) {
    taskWorkPendingHighWaterMark = TaskMaybeU32(pending);
  }
}

TaskStat::TaskStatus TaskImpl::taskStatus() const {
  TaskStat::TaskStatus status;
  status.taskCurrentlyRunningIs(taskCurrentlyRunning_);
  status.taskOnRunQueueIs(onRunQueue());
  status.taskSuspendedIs(taskSuspended_);
  status.taskIsTaskGroupIs(isTaskGroup() != nullptr);
  return status;
}

TaskStat TaskImpl::getStats() const {
  return TaskStat(taskNameRef(), TaskKey(this), taskPriority(), *this, taskStatus());
}

void TaskImpl::resetStats() {
  static_cast<TaskCounters&>(*this) = {};
  handleResetStats();
}

}  // namespace Brelo
