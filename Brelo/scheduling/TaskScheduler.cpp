#include "Brelo/TaskScheduler.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/SteadyNow.h"

namespace Brelo {

using Impl::schedulerTrace;
using Impl::steadyNow;

TaskScheduler::TaskScheduler(std::string const& name, TaskSchedulerRoot* root,
                             std::shared_ptr<TaskSchedulerHistory> history)
    : schedulerHistory_(std::move(history)),
      schedulerName_(schedulerHistory_->stringCache().intern(name)),
      taskSchedulerRoot_(root),
      schedulerRunRequestTime_(steadyNow()) {}

TaskScheduler::~TaskScheduler() = default;

void TaskScheduler::taskRegister(TaskImpl* task) {
  root().sanityCheckCurrentRunningThread();
  TaskTimePoint const now = steadyNow();
  BRELO_SCHEDULER_ASSERT(task->taskPriority().isLevel(), task->taskPriority());
  BRELO_TRACE(schedulerTrace, 4, "TaskScheduler", "{} Register {}", *this, *task);
  BRELO_SCHEDULER_ASSERT(!task->registered(), "Task: ", task, " already registered");
  registeredTasks_.pushFront(*task);
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
  requestSchedulerRun();
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
    BRELO_TRACE(schedulerTrace, 8, "TaskScheduler", "{} Suspended", *this);
    history().insert(schedulerRunStartTime_,
                     TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended, *this);
    return;
  }
  TaskImpl* const task = pickOneTask(schedulerRunStartTime_, TaskPriority::absolute);
  if (task == nullptr) {
    schedulerHasRunnableTasksIs(false, schedulerRunStartTime_);
    return;
  }
  currentTask_ = task->shared_from_this();
  TaskTimePoint finish;
  try {
    task->taskDoRun(schedulerRunStartTime_, &finish);
  } catch (...) {
    auto const last = std::move(currentTask_);
    throw;
  }
  BRELO_TRACE(schedulerTrace, 8, "TaskScheduler", "{} Scheduler completed task, request run",
              *this);
  requestSchedulerRunAndRecord(finish);
  // The task may be the last owner of this scheduler: nothing is touched after it has gone.
  auto const last = std::move(currentTask_);
}

TaskImpl* TaskScheduler::pickOneTask(TaskTimePoint const& now, TaskPriority from) {
  for (unsigned char level = from.value(); level < TaskPriority::levels; ++level) {
    TaskPriority const priority(level);
    TaskRunQueues::TaskRunQueue& queue = taskRunQueues_[priority];
    TaskImpl* const task = queue.first();
    if (task == nullptr) {
      queue.consecutiveRunsIs(0);
      continue;
    }
    unsigned const runs = queue.consecutiveRuns();
    if (attemptLowerPriorityBump(priority, runs)) {
      TaskPriority const below(static_cast<unsigned char>(level + 1));
      if (TaskImpl* const lower = pickOneTask(now, below)) {
        queue.consecutiveRunsIs(0);
        return lower;
      }
    }
    queue.consecutiveRunsIs(runs + 1);
    taskSchedulerUnlinkTask(now, queue, task);
    return task;
  }
  return nullptr;
}

bool TaskScheduler::attemptLowerPriorityBump(TaskPriority priority,
                                             unsigned consecutiveRuns) const {
  // By level: one waiting task counts as much as eight of the level below. `absolute` has no
  // weight since it is never passed over, `scavenge` none since it never causes a pass.
  static constexpr std::uint32_t weights[] = {0, 64, 8, 1, 0};
  if (priority != TaskPriority::high && priority != TaskPriority::normal) return false;
  std::uint32_t lower = 0;
  for (unsigned char level = priority.value() + 1; level <= TaskPriority::low.value(); ++level) {
    lower += runnableTaskCount(TaskPriority(level)) * weights[level];
  }
  if (lower == 0) return false;
  std::uint32_t const own = runnableTaskCount(priority) * weights[priority.value()];
  return lower * consecutiveRuns > own;
}

void TaskScheduler::enqueue(TaskImpl& task) {
  taskRunQueues_[task.taskPriority()].enqueue(task);
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

std::uint32_t TaskScheduler::runnableTaskCount(TaskPriority priority) const {
  BRELO_SCHEDULER_ASSERT(priority.isLevel(), priority);
  std::int64_t const runnable = taskRunQueues_[priority].runnableCount();
  BRELO_SCHEDULER_ASSERT(runnable >= 0, "Priority: ", priority, " runnableTasks: ", runnable);
  return static_cast<std::uint32_t>(runnable);
}

std::uint32_t TaskScheduler::runnableTaskCount() const {
  std::uint32_t sum = 0;
  for (unsigned char level = 0; level < TaskPriority::levels; ++level)
    sum += runnableTaskCount(TaskPriority(level));
  return sum;
}

std::uint64_t TaskScheduler::runTaskCount(TaskPriority priority) const {
  BRELO_SCHEDULER_ASSERT(priority.isLevel(), priority);
  return taskRunQueues_[priority].runsSinceClear();
}

void TaskScheduler::taskForceYieldInTestNotify(TaskImpl* task, bool on) {
  if (on) {
    bool const wasEmpty = forcedYieldTasks_.empty();
    forcedYieldTasks_.insert(task);
    if (wasEmpty) handleTaskForceYieldInTest();
  } else {
    forcedYieldTasks_.erase(task);
    if (forcedYieldTasks_.empty()) handleTaskForceYieldInTest();
  }
}

void TaskScheduler::taskShouldYieldModesReevaluate() {
  for (TaskImpl& task : registeredTasks_)
    task.taskShouldYieldModeReevaluate();
}

std::uint64_t TaskScheduler::registeredTaskCount() const {
  return static_cast<std::uint64_t>(
      std::distance(registeredTasks_.begin(), registeredTasks_.end()));
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

fmt::format_context::iterator Impl::formatScheduler(TaskScheduler const& scheduler,
                                                    fmt::format_context& context) {
  return fmt::format_to(context.out(), "{}:", scheduler.schedulerName());
}

}  // namespace Brelo
