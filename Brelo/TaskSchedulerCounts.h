#pragma once

#include <cstdint>
#include <map>

#include "Brelo/Export.h"
#include "Brelo/TaskPriority.h"
#include "Brelo/TaskRunQueues.h"

namespace Brelo {

class TaskSchedulerQueueStats;

/// What a scheduler counts by priority, with the run queues that know a part of it.
class BRELO_EXPORT TaskSchedulerCounts {
 public:
  /// Tasks queued at a level, which the priority must be, or at all levels.
  /// @{
  std::uint32_t runnableTaskCount(TaskPriority priority) const;
  std::uint32_t runnableTaskCount() const;
  /// @}
  /// Runs since the statistics were cleared. The priority must be a level.
  std::uint64_t runTaskCount(TaskPriority priority) const;
  /// Live tasks, with those that ended without their figures being kept. A priority that is no
  /// level has a count, too.
  std::uint32_t tasksPerPriority(TaskPriority priority) const;
  /// Tasks ended since the statistics were cleared, whose figures were kept. A priority that is no
  /// level has a count, too.
  std::uint32_t completedTasksPerPriority(TaskPriority priority) const;
  /// Change a count by one. Below zero it is an assertion.
  /// @{
  void tasksPerPriorityInc(TaskPriority priority);
  void tasksPerPriorityDec(TaskPriority priority);
  void completedTasksPerPriorityInc(TaskPriority priority);
  void completedTasksPerPriorityDec(TaskPriority priority);
  /// @}
  /// All of these, of all levels.
  TaskSchedulerQueueStats queueStats() const;

 protected:
  /// All are zero. The levels have their counts from the start, so that counting tasks, which also
  /// happens as they end, takes no memory.
  TaskSchedulerCounts();
  ~TaskSchedulerCounts() = default;

  /// Zeroes the counts of runs and of tasks that have ended.
  void clearCounts();

  TaskRunQueues taskRunQueues_;  ///< empty at first

 private:
  using Counts = std::map<TaskPriority, std::uint32_t>;

  Counts tasksPerPriority_;
  Counts completedTasksPerPriority_;
};

}  // namespace Brelo
