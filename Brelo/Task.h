#pragma once

#include <memory>
#include <string>

#include "Brelo/Export.h"
#include "Brelo/FileDescriptorTask.h"
#include "Brelo/TaskImpl.h"
#include "Brelo/TimerTask.h"

namespace Brelo {

/// What an application derives its work from: override `taskExecute()`, make the object with
/// `std::make_shared` on the scheduler's thread, and call `scheduleTask()`.
///
/// A task that is not owned by a shared pointer fails at its first run with `std::bad_weak_ptr`.
class BRELO_EXPORT Task : public TaskImpl {
 public:
  /// Registers the task, idle, with the scheduler, whose default quantum it gets. The priority
  /// must be a level.
  Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name);
  /// The same. Raises `std::bad_weak_ptr` if no shared pointer owns the scheduler.
  Task(TaskScheduler* scheduler, TaskPriority priority, std::string name);

  bool taskScheduled() const override;
  void scheduleTask() override;
  void taskRunFromTest() override;
  TaskStat::TaskStatus taskStatus() const override;
};

}  // namespace Brelo
