#include "Brelo/TaskBase.h"

#include <utility>

#include "Brelo/TaskSchedulerBase.h"
#include "Brelo/TaskSchedulerHistory.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

_TaskBase::_TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     std::string const& name)
    : taskScheduler_(std::move(scheduler)), taskPriority_(priority) {
  BRELO_SCHEDULER_ASSERT(taskScheduler_ != nullptr, "Need a TaskScheduler");
  ConstStringCache& cache = taskScheduler_->history().stringCache();
  taskName_ = cache.intern(name);
  taskStatsName_ = taskName_;
  taskHistoryName_ = cache.intern(priority.oneCharString() + " " + name);
}

_TaskBase::~_TaskBase() {
  taskScheduler_->history().nameEnded(std::move(taskHistoryName_));
}

std::shared_ptr<TaskScheduler> _TaskBase::sharedScheduler(TaskScheduler* scheduler) {
  return scheduler == nullptr ? nullptr : scheduler->shared_from_this();
}

void _TaskBase::taskStatsNameIs(std::string name) {
  taskStatsName_ = taskScheduler_->history().stringCache().intern(std::move(name));
}

void _TaskBase::taskBusyIs(bool busy, TaskTimePoint const& time) {
  if (busy == taskBusy_) return;
  taskBusy_ = busy;
  taskHistoryInsert(time, busy ? TaskSchedulerEventType::busy : TaskSchedulerEventType::idle);
  handleTaskBusy();
}

void _TaskBase::taskHistoryInsert(TaskTimePoint const& time,
                                  TaskSchedulerEventType const& type) const {
  taskScheduler_->history().insertOwn(time, type, taskHistoryName_);
}

std::ostream& operator<<(std::ostream& stream, _TaskBase const* task) {
  return stream << fmt::format("{}", *task);
}

fmt::format_context::iterator formatValue(_TaskBase const& task, fmt::format_context& context) {
  return fmt::format_to(context.out(), "{}:{}:{}@{}", task.taskScheduler()->schedulerName(),
                        task.taskPriority(), task.taskName(), DisplayPointer(&task));
}

}  // namespace Brelo
