#pragma once

#include <cstdint>
#include <map>

#include "Brelo/TaskPriority.h"

namespace Brelo {

/// The tasks and runs of one priority; a plain value.
struct TaskSchedulerPriorityStats {
  /// Adds the four numbers. Another priority is an assertion.
  TaskSchedulerPriorityStats& operator+=(TaskSchedulerPriorityStats const& other);

  TaskPriority priority{0};
  std::uint32_t runnableTasks = 0;
  std::uint32_t idleTasks = 0;
  std::uint32_t completedTasks = 0;
  std::uint64_t totalRunCount = 0;
};

/// One scheduler's figures by priority, or the sum over several schedulers; a plain value.
class TaskSchedulerQueueStats : public std::map<TaskPriority, TaskSchedulerPriorityStats> {
 public:
  TaskSchedulerQueueStats& operator+=(TaskSchedulerQueueStats const& other);
};

}  // namespace Brelo
