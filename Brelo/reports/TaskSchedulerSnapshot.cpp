#include "Brelo/TaskSchedulerSnapshot.h"

#include "Brelo/TaskScheduler.h"
#include "Brelo/reports/SubSchedulerKey.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

namespace {

std::shared_ptr<TaskSchedulerSnapshot::History const> historyOf(TaskSchedulerHistory const& ring) {
  auto history = std::make_shared<TaskSchedulerSnapshot::History>();
  history->historyEntryCount = ring.capacity();
  history->events_.reserve(ring.capacity());
  history->events_.assign(ring.events().begin(), ring.events().end());
  history->events_.shrink_to_fit();
  return history;
}

}  // namespace

TaskSchedulerSnapshot::TaskSchedulerSnapshot(TaskScheduler const* scheduler, std::string name,
                                             bool includeNeverRun, bool includeCompleted,
                                             bool includeHistory, unsigned displayOrder,
                                             bool threadSanityDisabled)
    : schedulerName_(std::move(name)),
      queueStats_(scheduler->queueStats()),
      maxSchedulerSlip_(scheduler->maxSchedulerSlip()),
      threadSanityDisabled_(threadSanityDisabled),
      displayOrder_(displayOrder),
      creatorThread_(std::this_thread::get_id()) {
  if (schedulerName_.empty()) schedulerName_ = scheduler->schedulerName();
  if (includeCompleted) {
    skippedCompletedTasks_ = scheduler->getCompletedTaskStats(&completedTasks_, includeNeverRun);
  }
  isRootScheduler_ = scheduler == &scheduler->root();
  if (isRootScheduler_ && includeHistory) history_ = historyOf(scheduler->history());
  skippedTasks_ = scheduler->getTaskStats(&tasks_, includeNeverRun);
  scheduler->forEachTaskGroup([&](TaskImpl const& parentTask, TaskGroup const& group) {
    subSchedulers_.emplace_back(
        Impl::subSchedulerKey(parentTask.getStats()),
        TaskSchedulerSnapshot(&group, "", includeNeverRun, includeCompleted, includeHistory,
                              displayOrderUnset, threadSanityDisabled));
  });
}

TaskSchedulerSnapshot::~TaskSchedulerSnapshot() {
  auto const current = std::this_thread::get_id();
  BRELO_SCHEDULER_ASSERT(threadSanityDisabled_ || current == creatorThread_, "Allocated by thread ",
                         creatorThread_, " freed by ", current);
}

}  // namespace Brelo
