#include "Brelo/TaskStat.h"

#include <algorithm>
#include <cctype>

#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

namespace {

TaskMaybeU32 mergedMark(TaskMaybeU32 mine, TaskMaybeU32 other) {
  return other.isSet() && other.value() > mine.value() ? other : mine;
}

}  // namespace

TaskStat::TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, std::uint32_t runCount,
                   TaskTimeDuration totalRunTime, std::uint64_t workCountTotal,
                   float workCountDecayAvg, TaskMaybeU32 workCountHighWaterMark,
                   std::uint32_t workPending, TaskMaybeU32 workPendingHighWaterMark,
                   std::uint32_t quantumViolation500, std::uint32_t quantumViolation200,
                   TaskTimeDuration runTimeHighWaterMark, TaskTimeDuration lastSchedulingLatency,
                   TaskTimeDuration schedulingLatencyHighWaterMark, TaskStatus status)
    : taskKey(key),
      taskPriority(priority),
      taskStatus(status),
      taskRunCount(runCount),
      taskTotalRunTime(totalRunTime),
      taskWorkCountTotal(workCountTotal),
      taskWorkCountDecayAvg(workCountDecayAvg),
      taskWorkCountHighWaterMark(workCountHighWaterMark),
      taskWorkPending(workPending),
      taskWorkPendingHighWaterMark(workPendingHighWaterMark),
      taskQuantumViolation500(quantumViolation500),
      taskQuantumViolation200(quantumViolation200),
      taskName_(std::move(name)),
      taskRunTimeHighWaterMark_(runTimeHighWaterMark),
      taskLastSchedulingLatency_(lastSchedulingLatency),
      taskSchedulingLatencyHighWaterMark_(schedulingLatencyHighWaterMark) {}

TaskStat& TaskStat::operator+=(TaskStat const& other) {
  BRELO_SCHEDULER_ASSERT(taskName_.string() == other.taskName_.string(), taskName_.string(),
                         " != ", other.taskName_.string());
  taskRunCount += other.taskRunCount;
  taskTotalRunTime += other.taskTotalRunTime;
  taskWorkCountTotal += other.taskWorkCountTotal;
  taskQuantumViolation500 += other.taskQuantumViolation500;
  taskQuantumViolation200 += other.taskQuantumViolation200;
  taskWorkCountDecayAvg = other.taskWorkCountDecayAvg;
  taskWorkPending = other.taskWorkPending;
  taskLastSchedulingLatency_ = other.taskLastSchedulingLatency_;
  taskStatus = other.taskStatus;
  taskWorkCountHighWaterMark =
      mergedMark(taskWorkCountHighWaterMark, other.taskWorkCountHighWaterMark);
  taskWorkPendingHighWaterMark =
      mergedMark(taskWorkPendingHighWaterMark, other.taskWorkPendingHighWaterMark);
  taskRunTimeHighWaterMark_ = std::max(taskRunTimeHighWaterMark_, other.taskRunTimeHighWaterMark_);
  taskSchedulingLatencyHighWaterMark_ =
      std::max(taskSchedulingLatencyHighWaterMark_, other.taskSchedulingLatencyHighWaterMark_);
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

std::vector<TaskStat const*> heaviestFirst(std::vector<TaskStat> const& stats) {
  std::vector<TaskStat const*> sorted;
  sorted.reserve(stats.size());
  for (TaskStat const& stat : stats)
    sorted.push_back(&stat);
  std::sort(sorted.begin(), sorted.end(), [](TaskStat const* a, TaskStat const* b) {
    return a->taskTotalRunTime > b->taskTotalRunTime;
  });
  return sorted;
}

}  // namespace Brelo
