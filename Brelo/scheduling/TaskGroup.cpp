#include "Brelo/TaskGroup.h"

#include <utility>

#include "Brelo/MemTrack.h"
#include "Brelo/Task.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/SteadyNow.h"

namespace Brelo {

using Impl::steadyNow;

class TaskGroup::ParentTask : public Task {
 public:
  ParentTask(std::shared_ptr<TaskScheduler> const& scheduler, TaskPriority priority,
             std::string const& groupName, TaskGroup* group)
      : Task(scheduler, priority, "TaskGroup;" + groupName), taskGroup_(group) {}

  void taskExecute() override {
    if (taskGroup_ == nullptr) return;
    auto const held = taskGroup_->shared_from_this();
    taskGroup_->runSlice(*this);
  }
  void handleResetStats() override {
    if (taskGroup_ != nullptr) taskGroup_->resetStats();
  }

  bool handleTaskException() override { return false; }

  TaskGroup* taskGroup() const { return taskGroup_; }
  void orphanIs() { taskGroup_ = nullptr; }

 private:
  TaskGroup* taskGroup_;
};

std::shared_ptr<TaskGroup> TaskGroup::TaskGroupIs(std::string name, TaskPriority priority,
                                                  bool taskGroupPriorityEnforced,
                                                  std::shared_ptr<TaskScheduler> parent) {
  return makeTracked<TaskGroup>(std::move(name), priority, taskGroupPriorityEnforced,
                                std::move(parent));
}

namespace {

TaskScheduler& existing(std::shared_ptr<TaskScheduler> const& scheduler) {
  BRELO_SCHEDULER_ASSERT(scheduler != nullptr, "Need a TaskScheduler");
  return *scheduler;
}

}  // namespace

TaskGroup::TaskGroup(std::string name, TaskPriority priority, bool taskGroupPriorityEnforced,
                     std::shared_ptr<TaskScheduler> parent)
    : TaskScheduler(name, &existing(parent).root(), existing(parent).schedulerHistory()),
      parentScheduler_(std::move(parent)),
      taskGroupPriority_(priority),
      taskGroupPriorityEnforced_(taskGroupPriorityEnforced) {
  defaultTaskQuantumIs(parentScheduler_->defaultTaskQuantum());
  if (taskGroupPriorityEnforced_) ownTaskPriorityIs(taskGroupPriority_);
  parentTask_ = makeTracked<ParentTask>(parentScheduler_, priority, name, this);
  root().registerScheduler(this);
}

TaskGroup::~TaskGroup() {
  taskGroupForceYieldInTestIs(false);
  root().unregisterScheduler(this);
  parentTask_->orphanIs();
  parentTask_.reset();
}

TaskGroup* TaskGroup::ofParentTask(TaskImpl const& task) {
  auto const* const parentTask = dynamic_cast<ParentTask const*>(&task);
  if (parentTask == nullptr) return nullptr;
  BRELO_SCHEDULER_ASSERT(parentTask->taskGroup() != nullptr, "TaskGroup is non-null");
  return parentTask->taskGroup();
}

bool TaskGroup::isParentTask(TaskImpl const& task) {
  return dynamic_cast<ParentTask const*>(&task) != nullptr;
}

void TaskGroup::requestSchedulerRun() {
  parentTask_->TaskImpl::scheduleTask();
}

void TaskGroup::handleTaskForceYieldInTest() {
  parentTask_->taskForceYieldInTestIs(hasForcedYieldTasks());
}

void TaskGroup::taskRegister(TaskImpl* task) {
  BRELO_SCHEDULER_ASSERT(!taskGroupPriorityEnforced_ || task->taskPriority() == taskGroupPriority_,
                         "taskPriority( ", task->taskPriority(), " ) != taskGroupPriority( ",
                         taskGroupPriority_, " )");
  TaskScheduler::taskRegister(task);
}

TaskTimeDuration TaskGroup::taskGroupQuantum() const {
  return parentTask_->taskQuantum();
}

void TaskGroup::taskGroupQuantumIs(TaskTimeDuration quantum) {
  parentTask_->taskQuantumIs(quantum);
}

void TaskGroup::taskGroupQuantumNoCheckIs(TaskTimeDuration quantum) {
  parentTask_->taskQuantumNoCheckIs(quantum);
}

void TaskGroup::taskGroupForceYieldInTestIs(bool on) {
  if (on == taskGroupForceYieldInTest_) return;
  taskGroupForceYieldInTest_ = on;
  taskForceYieldInTestNotify(parentTask_.get(), on);
}

std::uint32_t TaskGroup::parentTaskRunCount() const {
  return parentTask_->taskRunCount;
}

bool TaskGroup::parentTaskScheduled() const {
  return parentTask_->taskScheduled();
}

void TaskGroup::taskGroupRunFromTest() {
  parentTask_->taskRunFromTest();
}

void TaskGroup::runSlice(ParentTask& parentTask) {
  bool const multipleRuns = tasksPermittedMultipleRuns_;
  if (!multipleRuns) taskRunQueuesMovePersistentToTemporary();
  unsigned long count = 0;
  while (schedulerHasRunnableTasks()) {
    ++count;
    TaskScheduler::handleSchedulerRun();
    if (parentTask.taskShouldYield()) break;
  }
  if (!multipleRuns) taskRunQueuesMoveTemporaryToPersistent();
  parentTask.taskWorkCountInc(count);
  std::uint32_t const runnable = runnableTaskCount();
  parentTask.taskWorkPendingIs(runnable);
  if (runnable == 0) {
    // Each run inside has scheduled the parent task; with nothing left it leaves its queue.
    if (schedulerHasRunnableTasks()) {
      schedulerHasRunnableTasksIs(false, steadyNow());
    }
    if (parentTask.taskScheduled()) parentTask.unscheduleTask();
  } else if (multipleRuns) {
    BRELO_SCHEDULER_ASSERT(parentTask.taskScheduled(), "TaskGroup parentTask should be scheduled.");
    BRELO_SCHEDULER_ASSERT(schedulerHasRunnableTasks(), "The TaskGroup should have runnable tasks");
  } else {
    parentTask.scheduleTask();
    schedulerHasRunnableTasksIs(true, steadyNow());
  }
}

}  // namespace Brelo
