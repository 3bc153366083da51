#pragma once

#include <memory>
#include <string>

#include "Brelo/Export.h"
#include "Brelo/TaskSchedulerBase.h"

namespace Brelo {

/// A scheduler that runs inside one task, its parent task, of another scheduler: however many
/// tasks a group holds, they compete with the outside as one task of one priority, and a run of
/// the parent task is a slice in which the group's own picks go on until its quantum is used up.
///
/// Held by its tasks and by its owner; it holds the scheduler above. Groups nest. The event loop
/// is not served during a slice.
class BRELO_EXPORT TaskGroup : public TaskScheduler {
 public:
  /// A new group on `parent`, owned by the caller. With `taskGroupPriorityEnforced` every task
  /// of the group must have the group's priority: another one is an assertion.
  static std::shared_ptr<TaskGroup> TaskGroupIs(std::string name, TaskPriority priority,
                                                bool taskGroupPriorityEnforced,
                                                std::shared_ptr<TaskScheduler> parent);

  /// What `TaskGroupIs` makes; it must be owned by a shared pointer.
  TaskGroup(std::string name, TaskPriority priority, bool taskGroupPriorityEnforced,
            std::shared_ptr<TaskScheduler> parent);
  ~TaskGroup() override;

  void requestSchedulerRun() override;
  void handleTaskForceYieldInTest() override;
  void taskRegister(TaskImpl* task) override;

  /// The length of a slice: the parent task's quantum; see `TaskImpl::taskQuantumIs`. The group's
  /// tasks have quanta of their own.
  /// @{
  TaskTimeDuration taskGroupQuantum() const;
  void taskGroupQuantumIs(TaskTimeDuration quantum);
  void taskGroupQuantumNoCheckIs(TaskTimeDuration quantum);
  /// @}
  /// Whether a task that schedules itself may run again in the same slice; true at first. Takes
  /// effect at the next slice.
  /// @{
  void tasksPermittedMultipleRunsIs(bool permitted) { tasksPermittedMultipleRuns_ = permitted; }
  bool tasksPermittedMultipleRuns() const { return tasksPermittedMultipleRuns_; }
  /// @}
  /// Ends each slice after one run.
  /// @{
  void taskGroupForceYieldInTestIs(bool on);
  bool taskGroupForceYieldInTest() const { return taskGroupForceYieldInTest_; }
  /// @}

  /// The scheduler above.
  std::shared_ptr<TaskScheduler> const& parentScheduler() const { return parentScheduler_; }
  std::uint32_t parentTaskRunCount() const;  ///< slices since the statistics were cleared
  bool parentTaskScheduled() const;          ///< a slice is coming
  /// Runs a slice here and now.
  void taskGroupRunFromTest();

  /// The group whose parent task `task` is, or null for any other task.
  static TaskGroup* ofParentTask(TaskImpl const& task);
  /// Whether `task` is the parent task of a group, which may have ended.
  static bool isParentTask(TaskImpl const& task);

 private:
  class ParentTask;
  void runSlice(ParentTask& parentTask);

  std::shared_ptr<ParentTask> parentTask_;
  std::shared_ptr<TaskScheduler> parentScheduler_;
  TaskPriority taskGroupPriority_;
  bool taskGroupPriorityEnforced_;
  bool taskGroupForceYieldInTest_ = false;
  bool tasksPermittedMultipleRuns_ = true;
};

}  // namespace Brelo
