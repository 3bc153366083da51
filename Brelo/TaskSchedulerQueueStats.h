#pragma once

#include <cstdint>
#include <map>

#include "Brelo/Export.h"
#include "Brelo/TaskPriority.h"

namespace Brelo {

/// The tasks and runs of one priority; a plain value.
struct BRELO_EXPORT TaskSchedulerPriorityStats {
  /// Adds the four numbers. Another priority is an assertion.
  TaskSchedulerPriorityStats& operator+=(TaskSchedulerPriorityStats const& other);

  TaskPriority priority{0};          ///< whose figures these are
  std::uint32_t runnableTasks = 0;   ///< live tasks on the run queue
  std::uint32_t idleTasks = 0;       ///< the others of `TaskScheduler::tasksPerPriority`
  std::uint32_t completedTasks = 0;  ///< see `TaskScheduler::completedTasksPerPriority`
  std::uint64_t totalRunCount = 0;   ///< runs since then
};

/// One scheduler's figures by priority, or the sum over several schedulers; a plain value.
class BRELO_EXPORT TaskSchedulerQueueStats
    : public std::map<TaskPriority, TaskSchedulerPriorityStats> {
 public:
  /// Adds up by priority; one that is only in `other` is taken over.
  TaskSchedulerQueueStats& operator+=(TaskSchedulerQueueStats const& other);
};

}  // namespace Brelo
