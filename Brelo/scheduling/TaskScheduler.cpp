#include "Brelo/TaskSchedulerBase.h"

#include <algorithm>
#include <utility>

#include "Brelo/Platform.h"
#include "Brelo/TaskSchedulerHistory.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/scheduling/RunObservation.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/SteadyNow.h"
#include "Brelo/scheduling/TaskSchedulerParts.h"

namespace Brelo {

using Impl::schedulerTrace;
using Impl::steadyNow;

TaskScheduler::TaskScheduler(std::string const& name, TaskSchedulerRoot* root,
                             std::shared_ptr<TaskSchedulerHistory> history)
    : schedulerHistory_(std::move(history)),
      schedulerName_(schedulerHistory_->stringCache().intern(name)),
      taskSchedulerRoot_(root),
      parts_(std::make_unique<Parts>()),
      schedulerRunRequestTime_(steadyNow()) {}

TaskScheduler::~TaskScheduler() {
  schedulerHistory_->nameEnded(std::move(schedulerName_));
}

void TaskScheduler::taskRegister(TaskImpl* task) {
  root().sanityCheckCurrentRunningThread();
  TaskTimePoint const now = steadyNow();
  BRELO_SCHEDULER_ASSERT(task->taskPriority().isLevel(), task->taskPriority());
  BRELO_TRACE(schedulerTrace, 4, "TaskScheduler", "{} Register {}", *this, *task);
  BRELO_SCHEDULER_ASSERT(!task->registered(), "Task: ", task, " already registered");
  registeredTasks_.pushFront(*task);
  ++registeredTaskCount_;
  tasksPerPriorityInc(task->taskPriority());
  task->taskHistoryInsert(now, TaskSchedulerEventType::create);
}

void TaskScheduler::taskUnregister(TaskImpl* task) {
  root().sanityCheckCurrentRunningThread();
  TaskTimePoint const now = steadyNow();
  BRELO_TRACE(schedulerTrace, 4, "TaskScheduler", "{} Unregister {}", *this, *task);
  BRELO_SCHEDULER_ASSERT(!task->onRunQueue(), "Task: ", task, " scheduled on unregister");
  updateCompletedTaskStats(task);
  BRELO_SCHEDULER_ASSERT(task->registered(), "Task: ", task, " not registered");
  TaskImpl::RegisteredList::unlink(*task);
  --registeredTaskCount_;
  task->taskHistoryInsert(now, TaskSchedulerEventType::destroy);
}

void TaskScheduler::schedulerHasRunnableTasksIs(bool value, TaskTimePoint const& time) {
  if (value == schedulerHasRunnableTasks_) return;
  schedulerHasRunnableTasks_ = value;
  if (value) {
    BRELO_TRACE(schedulerTrace, 8, "TaskScheduler", "{} Scheduler has runnable tasks, request run",
                *this);
    history().insert(time, TaskSchedulerEventType::schedulerRunnable, *this);
    requestSchedulerRunAndRecord(time);
  } else {
    history().insert(time, TaskSchedulerEventType::schedulerIdle, *this);
    BRELO_TRACE(schedulerTrace, 8, "TaskScheduler", "{} Scheduler idle", *this);
  }
}

void TaskScheduler::requestSchedulerRunAndRecord(TaskTimePoint const& time) {
  schedulerRunRequestTime_ = time;
  try {
    requestSchedulerRun();
  } catch (...) {
    // No run is coming: the next task that is queued asks again.
    schedulerHasRunnableTasks_ = false;
    throw;
  }
}

TaskTimePoint TaskScheduler::checkSchedulerLatency() {
  schedulerRunStartTime_ = steadyNow();
  maxSchedulerSlip_ = std::max(maxSchedulerSlip_,
                               TaskTimeDuration(schedulerRunStartTime_ - schedulerRunRequestTime_));
  return schedulerRunStartTime_;
}

void TaskScheduler::handleSchedulerRun() {
  checkSchedulerLatency();
  if (root().suspended()) {
    if (__builtin_expect(observation_ != nullptr, 0)) observedEmptyLook();
    BRELO_TRACE(schedulerTrace, 8, "TaskScheduler", "{} Suspended", *this);
    history().insert(schedulerRunStartTime_,
                     TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended, *this);
    return;
  }
  TaskImpl* const task = pickOneTask(schedulerRunStartTime_, TaskPriority::absolute);
  if (task == nullptr) {
    if (__builtin_expect(observation_ != nullptr, 0)) observedEmptyLook();
    schedulerHasRunnableTasksIs(false, schedulerRunStartTime_);
    return;
  }
  // The task lives over its run. It may be the last owner of this scheduler, of which nothing is
  // touched once the task has gone. A run inside this one gives the place back.
  auto outer = std::exchange(currentTask_, task->shared_from_this());
  std::shared_ptr<_TaskBase> last;
  try {
    TaskTimePoint finish;
    if (__builtin_expect(observation_ == nullptr, 1)) {
      task->taskDoRun(schedulerRunStartTime_, &finish);
    } else if (observation_->hears == RunObserver::markChanges) {
      observation_->markedRun(*task, schedulerRunStartTime_, &finish);
    } else {
      recordedRun(*task, task->taskScheduleTime(), schedulerRunStartTime_,
                  std::max(TaskTimeDuration(schedulerRunStartTime_ - schedulerRunRequestTime_),
                           TaskTimeDuration()),
                  &finish);
    }
    BRELO_TRACE(schedulerTrace, 8, "TaskScheduler", "{} Scheduler completed task, request run",
                *this);
    requestSchedulerRunAndRecord(finish);
  } catch (...) {
    last = std::exchange(currentTask_, std::move(outer));
    throw;
  }
  last = std::exchange(currentTask_, std::move(outer));
}

TaskImpl* TaskScheduler::pickOneTask(TaskTimePoint const& now, TaskPriority from) {
  TaskPriority const priority = parts_->fairness.pick(taskRunQueues_, from);
  if (!priority.isLevel()) return nullptr;
  TaskRunQueues::TaskRunQueue& queue = taskRunQueues_[priority];
  TaskImpl& task = queue.first();
  taskSchedulerUnlinkTask(now, queue, &task);
  return &task;
}

bool TaskScheduler::attemptLowerPriorityBump(TaskPriority priority,
                                             unsigned consecutiveRuns) const {
  return Impl::TaskFairness::attemptLowerPriorityBump(taskRunQueues_, priority, consecutiveRuns);
}

void TaskScheduler::enqueue(TaskImpl& task) {
  taskRunQueues_[task.taskPriority()].enqueue(task);
}

TaskImpl const* TaskScheduler::longestQueuedTask() const {
  TaskImpl const* longest = nullptr;
  for (auto const& queue : taskRunQueues_) {
    TaskImpl const* const task = queue.longestQueued();
    if (task == nullptr) continue;
    if (longest == nullptr || task->taskScheduleTime() < longest->taskScheduleTime())
      longest = task;
  }
  return longest;
}

void TaskScheduler::unscheduleTask(TaskTimePoint const& now, TaskImpl* task) {
  BRELO_SCHEDULER_ASSERT(task->onRunQueue(), "Task: ", task, " not on run queue");
  taskRunQueues_[task->taskPriority()].removeUnrun(*task);
  task->doUpdateSchedulingLatency(now);
}

void TaskScheduler::taskSchedulerUnlinkTask(TaskTimePoint const& now, TaskImpl* task) {
  BRELO_SCHEDULER_ASSERT(task->taskPriority().isLevel(), task->taskPriority());
  taskSchedulerUnlinkTask(now, taskRunQueues_[task->taskPriority()], task);
}

void TaskScheduler::taskSchedulerUnlinkTask(TaskTimePoint const& now,
                                            TaskRunQueues::TaskRunQueue& queue, TaskImpl* task) {
  queue.removeToRun(*task);
  BRELO_SCHEDULER_ASSERT(queue.runnableCount() >= 0, "");
  task->doUpdateSchedulingLatency(now);
}

void TaskScheduler::taskRunQueuesMovePersistentToTemporary() {
  for (auto& queue : taskRunQueues_)
    queue.movePersistentToTemporary();
}

void TaskScheduler::taskRunQueuesMoveTemporaryToPersistent() {
  for (auto& queue : taskRunQueues_)
    queue.moveTemporaryToPersistent();
}

void TaskScheduler::taskForceYieldInTestNotify(TaskImpl* task, bool on) {
  if (parts_->forcedYield.notify(task, on)) handleTaskForceYieldInTest();
}

bool TaskScheduler::hasForcedYieldTasks() const {
  return !parts_->forcedYield.empty();
}

void TaskScheduler::taskShouldYieldModesReevaluate() {
  for (TaskImpl& task : registeredTasks_)
    task.taskShouldYieldModeReevaluate();
}

void TaskScheduler::virtualRunStarts() {
  virtualRunStartTime_ = time();
}

double TaskScheduler::virtualRunTime() const {
  return time() - virtualRunStartTime_;
}

std::shared_ptr<_TaskBase> TaskScheduler::taskForTest(std::string const& name) {
  for (TaskImpl& task : registeredTasks_) {
    if (task.taskName() == name) return task.shared_from_this();
  }
  return nullptr;
}

std::ostream& operator<<(std::ostream& stream, TaskScheduler const* scheduler) {
  return stream << fmt::format("{}", *scheduler);
}

fmt::format_context::iterator formatValue(TaskScheduler const& scheduler,
                                          fmt::format_context& context) {
  return fmt::format_to(context.out(), "{}:", scheduler.schedulerName());
}

}  // namespace Brelo
