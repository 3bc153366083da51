#include "Brelo/TaskStat.h"

#include <algorithm>
#include <cctype>

#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

namespace {

TaskMaybeU32 mergedMark(TaskMaybeU32 mine, TaskMaybeU32 other) {
  return other.isSet() && other.value() > mine.value() ? other : mine;
}

void merge(TaskCounters& mine, TaskCounters const& later) {
  mine.taskRunCount += later.taskRunCount;
  mine.taskTotalRunTime += later.taskTotalRunTime;
  mine.taskWorkCountTotal += later.taskWorkCountTotal;
  mine.taskQuantumViolation500 += later.taskQuantumViolation500;
  mine.taskQuantumViolation200 += later.taskQuantumViolation200;
  mine.taskWorkCountDecayAvg = later.taskWorkCountDecayAvg;
  mine.taskWorkPending = later.taskWorkPending;
  mine.taskLastSchedulingLatency = later.taskLastSchedulingLatency;
  mine.taskWorkCountHighWaterMark =
      mergedMark(mine.taskWorkCountHighWaterMark, later.taskWorkCountHighWaterMark);
  mine.taskWorkPendingHighWaterMark =
      mergedMark(mine.taskWorkPendingHighWaterMark, later.taskWorkPendingHighWaterMark);
  mine.taskRunTimeHighWaterMark =
      std::max(mine.taskRunTimeHighWaterMark, later.taskRunTimeHighWaterMark);
  mine.taskSchedulingLatencyHighWaterMark =
      std::max(mine.taskSchedulingLatencyHighWaterMark, later.taskSchedulingLatencyHighWaterMark);
}

}  // namespace

TaskStat::TaskStat() {
  taskWorkCountHighWaterMark = TaskMaybeU32(0);
  taskWorkPendingHighWaterMark = TaskMaybeU32(0);
}

TaskStat::TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority,
                   TaskCounters const& counters, TaskStatus status)
    : TaskCounters(counters),
      taskKey(key),
      taskPriority(priority),
      taskStatus(status),
      taskName_(std::move(name)) {}

TaskStat::TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, std::uint32_t runCount,
                   TaskTimeDuration totalRunTime, std::uint64_t workCountTotal,
                   float workCountDecayAvg, TaskMaybeU32 workCountHighWaterMark,
                   std::uint32_t workPending, TaskMaybeU32 workPendingHighWaterMark,
                   std::uint32_t quantumViolation500, std::uint32_t quantumViolation200,
                   TaskTimeDuration runTimeHighWaterMark, TaskTimeDuration lastSchedulingLatency,
                   TaskTimeDuration schedulingLatencyHighWaterMark, TaskStatus status)
    : TaskStat(std::move(name), key, priority,
               {lastSchedulingLatency, schedulingLatencyHighWaterMark, totalRunTime,
                runTimeHighWaterMark, runCount, quantumViolation500, quantumViolation200,
                workCountDecayAvg, workCountTotal, workCountHighWaterMark, workPending,
                workPendingHighWaterMark},
               status) {}

TaskStat& TaskStat::operator+=(TaskStat const& other) {
  BRELO_SCHEDULER_ASSERT(taskName_.string() == other.taskName_.string(), taskName_.string(),
                         " != ", other.taskName_.string());
  merge(*this, other);
  taskStatus = other.taskStatus;
  taskCompletedCount += 1;
  return *this;
}

std::string TaskStat::taskStatusString() const {
  char first = ' ';
  if (taskStatus.taskCurrentlyRunning()) {
    first = '*';
  } else if (taskStatus.taskSuspended()) {
    first = 'S';
  } else if (taskStatus.taskTimer()) {
    first = taskStatus.taskTimerRunning() ? 'T' : 't';
  }
  char const letter = taskPriority.oneChar();
  char const second =
      taskStatus.taskOnRunQueue() ? letter : static_cast<char>(std::tolower(letter));
  return {first, second};
}

}  // namespace Brelo
