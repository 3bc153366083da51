#include "Brelo/scheduling/ResetStatsTask.h"

namespace Brelo {

TaskScheduler::ResetStatsTask::ResetStatsTask(TaskScheduler* scheduler, TaskPriority priority)
    : Task(scheduler, priority, scheduler->schedulerName() + ";ResetStats") {}

void TaskScheduler::ResetStatsTask::restart() {
  scheduleTask();
  resetStatsBookmark_.unlink();
  resetStatsBookmark_.insertBefore(taskScheduler_->registeredTasks_.begin());
}

void TaskScheduler::ResetStatsTask::taskExecute() {
  auto const scheduler = taskScheduler();
  handleResetStatsTaskRun();
}

void TaskScheduler::ResetStatsTask::handleResetStatsTaskRun() {
  auto& registered = taskScheduler_->registeredTasks_;
  TaskImpl::RegisteredList::Iterator at(registered, resetStatsBookmark_.node());
  resetStatsBookmark_.unlink();
  unsigned count = 0;
  while (at != registered.end()) {
    if (count > 0 && taskShouldYield()) break;
    at->resetStats();
    ++count;
    ++at;
  }
  bool const done = at == registered.end();
  if (!done) resetStatsBookmark_.insertBefore(at);
  taskWorkCountInc(count);
  if (done) {
    taskScheduler_->clearStatsCommon();
  } else {
    scheduleTask();
  }
}

}  // namespace Brelo
