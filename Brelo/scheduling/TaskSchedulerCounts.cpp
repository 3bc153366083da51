#include "Brelo/TaskSchedulerCounts.h"

#include "Brelo/TaskSchedulerQueueStats.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

namespace {

template <class Counts>
std::uint32_t countOf(Counts const& counts, TaskPriority priority) {
  auto const found = counts.find(priority);
  return found == counts.end() ? 0 : found->second;
}

template <class Counts>
void decrement(Counts& counts, TaskPriority priority, char const* func) {
  std::uint32_t& count = counts[priority];
  if (count == 0) {
    Impl::schedulerFail(func, __LINE__, "Priority: ", priority, " count: ", count);
  }
  --count;
}

}  // namespace

TaskSchedulerCounts::TaskSchedulerCounts() {
  for (unsigned char level = 0; level < TaskPriority::levels; ++level) {
    tasksPerPriority_.emplace(level, 0);
    completedTasksPerPriority_.emplace(level, 0);
  }
}

std::uint32_t TaskSchedulerCounts::runnableTaskCount(TaskPriority priority) const {
  BRELO_SCHEDULER_ASSERT(priority.isLevel(), priority);
  return taskRunQueues_.runnable(priority);
}

std::uint32_t TaskSchedulerCounts::runnableTaskCount() const {
  std::uint32_t sum = 0;
  for (unsigned char level = 0; level < TaskPriority::levels; ++level)
    sum += runnableTaskCount(TaskPriority(level));
  return sum;
}

std::uint64_t TaskSchedulerCounts::runTaskCount(TaskPriority priority) const {
  BRELO_SCHEDULER_ASSERT(priority.isLevel(), priority);
  return taskRunQueues_[priority].runsSinceClear();
}

std::uint32_t TaskSchedulerCounts::tasksPerPriority(TaskPriority priority) const {
  return countOf(tasksPerPriority_, priority);
}

std::uint32_t TaskSchedulerCounts::completedTasksPerPriority(TaskPriority priority) const {
  return countOf(completedTasksPerPriority_, priority);
}

void TaskSchedulerCounts::tasksPerPriorityInc(TaskPriority priority) {
  ++tasksPerPriority_[priority];
}

void TaskSchedulerCounts::tasksPerPriorityDec(TaskPriority priority) {
  decrement(tasksPerPriority_, priority, __func__);
}

void TaskSchedulerCounts::completedTasksPerPriorityInc(TaskPriority priority) {
  ++completedTasksPerPriority_[priority];
}

void TaskSchedulerCounts::completedTasksPerPriorityDec(TaskPriority priority) {
  decrement(completedTasksPerPriority_, priority, __func__);
}

TaskSchedulerQueueStats TaskSchedulerCounts::queueStats() const {
  TaskSchedulerQueueStats stats;
  for (unsigned char level = 0; level < TaskPriority::levels; ++level) {
    TaskPriority const priority(level);
    TaskSchedulerPriorityStats entry;
    entry.priority = priority;
    entry.runnableTasks = runnableTaskCount(priority);
    entry.idleTasks = tasksPerPriority(priority) - entry.runnableTasks;
    entry.completedTasks = completedTasksPerPriority(priority);
    entry.totalRunCount = static_cast<std::uint32_t>(runTaskCount(priority));
    bool const inserted = stats.emplace(priority, entry).second;
    BRELO_SCHEDULER_ASSERT(inserted, "Priority: ", priority, " insert failed");
  }
  return stats;
}

void TaskSchedulerCounts::clearCounts() {
  for (auto& queue : taskRunQueues_)
    queue.clearRuns();
  for (auto& [priority, count] : completedTasksPerPriority_)
    count = 0;
}

}  // namespace Brelo
