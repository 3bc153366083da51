#include "Brelo/TaskSchedulerQueueStats.h"

#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

TaskSchedulerPriorityStats& TaskSchedulerPriorityStats::operator+=(
    TaskSchedulerPriorityStats const& other) {
  BRELO_SCHEDULER_ASSERT(priority == other.priority, priority, " != ", other.priority);
  runnableTasks += other.runnableTasks;
  idleTasks += other.idleTasks;
  completedTasks += other.completedTasks;
  totalRunCount += other.totalRunCount;
  return *this;
}

TaskSchedulerQueueStats& TaskSchedulerQueueStats::operator+=(TaskSchedulerQueueStats const& other) {
  for (auto const& [priority, stats] : other) {
    auto const [mine, inserted] = emplace(priority, stats);
    if (!inserted) mine->second += stats;
  }
  return *this;
}

}  // namespace Brelo
