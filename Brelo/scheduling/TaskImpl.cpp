#include "Brelo/TaskImpl.h"

#include <algorithm>

#include "Brelo/TaskGroup.h"
#include "Brelo/TaskSchedulerBase.h"
#include "Brelo/TaskSchedulerHistory.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/SteadyNow.h"

namespace Brelo {

using Impl::schedulerTrace;
using Impl::steadyNow;

TaskImpl::TaskImpl(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                   std::string const& name)
    : _TaskBase(std::move(scheduler), priority, name),
      taskSuspended_(false),
      taskQuantum_(taskScheduler_->defaultTaskQuantum()) {
  includeInCompletedTaskIs(true);
  taskShouldYieldModeReevaluate();
  handleInitialized();
}

void TaskImpl::handleInitialized() {
  taskScheduler_->taskRegister(this);
}

TaskImpl::~TaskImpl() {
  taskForceYieldInTestIs(false);
  if (taskMagicNumber_ == taskMagicNumberConstructed) {
    handleDestroy();
  } else {
    unscheduleTask();
  }
}

void TaskImpl::handleDestroy() {
  unscheduleTask();
  taskScheduler_->taskUnregister(this);
  // Volatile, since a plain store into an object that is ending would be dropped.
  static_cast<std::uint32_t volatile&>(taskMagicNumber_) = taskMagicNumberEnded;
}

void TaskImpl::sanityCheckCurrentRunningThread() const {
  taskScheduler_->root().sanityCheckCurrentRunningThread();
}

void TaskImpl::taskStatsNameIs(std::string name) {
  _TaskBase::taskStatsNameIs(std::move(name));
}

bool TaskImpl::taskScheduled() const {
  sanityCheckCurrentRunningThread();
  return onRunQueue();
}

void TaskImpl::scheduleTask() {
  sanityCheckCurrentRunningThread();
  if (!onRunQueue()) scheduleTaskPrivate(steadyNow());
}

void TaskImpl::scheduleTaskAt(TaskTimePoint const& now) {
  sanityCheckCurrentRunningThread();
  if (!onRunQueue()) scheduleTaskPrivate(now);
}

/// On the right thread, and on no queue.
void TaskImpl::scheduleTaskPrivate(TaskTimePoint const& now) {
  if (taskSuspended_) {
    taskHistoryInsert(now, TaskSchedulerEventType::scheduleWhileSuspended);
    return;
  }
  BRELO_TRACE(schedulerTrace, 8, "TaskImpl", "Scheduled {}", *this);
  taskHistoryInsert(now, TaskSchedulerEventType::schedule);
  taskScheduleTime_ = now;
  taskScheduler_->enqueue(*this);
  try {
    taskScheduler_->schedulerHasRunnableTasksIs(true, now);
  } catch (...) {
    unscheduleTaskPrivate(now);
    throw;
  }
  taskBusyIs(taskScheduled(), now);
}

void TaskImpl::unscheduleTask() {
  unscheduleTaskAt(steadyNow());
}

void TaskImpl::unscheduleTaskAt(TaskTimePoint const& now) {
  sanityCheckCurrentRunningThread();
  unscheduleTaskPrivate(now);
  taskBusyIs(taskScheduled(), now);
}

void TaskImpl::unscheduleTaskPrivate(TaskTimePoint const& now) {
  if (!onRunQueue()) return;
  BRELO_TRACE(schedulerTrace, 8, "TaskImpl", "Unscheduled {}", *this);
  taskHistoryInsert(now, TaskSchedulerEventType::unschedule);
  taskScheduler_->unscheduleTask(now, this);
}

void TaskImpl::taskSuspendedIs(bool suspended) {
  if (suspended == taskSuspended_) return;
  taskSuspended_ = suspended;
  TaskTimePoint const now = steadyNow();
  if (suspended) {
    BRELO_TRACE(schedulerTrace, 1, "TaskImpl", "Suspend {}", *this);
    taskHistoryInsert(now, TaskSchedulerEventType::suspendOn);
    unscheduleTask();
  } else {
    BRELO_TRACE(schedulerTrace, 1, "TaskImpl", "Unsuspend {}", *this);
    taskHistoryInsert(now, TaskSchedulerEventType::suspendOff);
    if (!taskScheduled()) scheduleTask();
  }
}

void TaskImpl::taskDoRun(TaskTimePoint const& now, TaskTimePoint* finish) {
  taskHistoryInsert(now, TaskSchedulerEventType::runStart);
  BRELO_SCHEDULER_ASSERT(!onRunQueue(), this);
  BRELO_TRACE(schedulerTrace, 8, "TaskImpl", "Running {}", *this);
  taskRunStartTime_ = now;
  if (taskShouldYieldMode_ == yieldModeVirtualTime) {
    taskScheduler_->virtualRunStarts();
  }
  ++taskRunCount;
  taskCurrentlyRunning_ = true;
  try {
    taskExecute();
  } catch (...) {
    if (!handleTaskException()) throw;
  }
  taskCurrentlyRunning_ = false;
  BRELO_SCHEDULER_ASSERT(taskMagicNumber_ == taskMagicNumberConstructed, "Task: ", this,
                         " taskMagicNumber: ", taskMagicNumber_,
                         " taskMagicNumberConstructed: ", taskMagicNumberConstructed);
  TaskTimePoint const end = steadyNow();
  *finish = end;
  TaskTimeDuration const used = runTimeUntil(end);
  if (!countViolation(used)) {
    BRELO_TRACE(schedulerTrace, 7, "TaskImpl", "Ran {} used {}", *this, used);
  } else {
    double const percent =
        static_cast<double>(used.count()) / static_cast<double>(taskQuantum_.count()) * 100;
    BRELO_TRACE(schedulerTrace, 5, "TaskImpl", "Ran {} used {} {}% violation", *this, used,
                static_cast<std::int64_t>(percent));
  }
  taskRunTimeHighWaterMark = std::max(taskRunTimeHighWaterMark, used);
  taskTotalRunTime += used;
  taskHistoryInsert(end, TaskSchedulerEventType::runEnd);
  taskBusyIs(taskScheduled(), end);
}

bool TaskImpl::handleTaskException() {
  return taskScheduler_->root().taskExceptionHandled(*this);
}

void TaskImpl::taskRunFromTest() {
  auto const scheduler = taskScheduler_;
  TaskTimePoint const now = steadyNow();
  TaskTimePoint const request = onRunQueue() ? taskScheduleTime_ : now;
  if (onRunQueue()) scheduler->taskSchedulerUnlinkTask(now, this);
  TaskTimePoint finish;
  scheduler->runTask(*this, request, now, &finish);
}

void TaskImpl::taskRunAndRecordFromTest() {
  auto const scheduler = taskScheduler_;
  TaskTimePoint const start = scheduler->checkSchedulerLatency();
  TaskTimePoint const request = onRunQueue() ? taskScheduleTime_ : start;
  if (onRunQueue()) scheduler->taskSchedulerUnlinkTask(start, this);
  TaskTimePoint finish;
  scheduler->runTask(*this, request, start, &finish);
  scheduler->requestSchedulerRunAndRecord(finish);
}

TaskTimeDuration TaskImpl::taskCurrentRunTime() const {
  BRELO_SCHEDULER_ASSERT(taskCurrentlyRunning_, "Task: ", this, " not currently running");
  return runTimeUntil(steadyNow());
}

TaskTimeDuration TaskImpl::runTimeUntil(TaskTimePoint const& now) const {
  if (taskShouldYieldMode_ == yieldModeVirtualTime) {
    return time2Duration(taskScheduler_->virtualRunTime());
  }
  return now - taskRunStartTime_;
}

TaskGroup* TaskImpl::isTaskGroup() const {
  return TaskGroup::ofParentTask(*this);
}

}  // namespace Brelo
