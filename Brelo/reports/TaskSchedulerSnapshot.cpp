#include "Brelo/TaskSchedulerSnapshot.h"

#include <boost/circular_buffer.hpp>

#include "Brelo/TaskScheduler.h"
#include "Brelo/reports/ReportFigures.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

TaskSchedulerSnapshot::History::History(TaskSchedulerHistory const& ring)
    : historyEntryCount(ring.capacity()) {
  events_.reserve(ring.capacity());
  events_.assign(ring.events().begin(), ring.events().end());
  events_.shrink_to_fit();
}

TaskSchedulerSnapshot::TaskSchedulerSnapshot(Alone, TaskScheduler const& scheduler,
                                             std::string name, bool includeNeverRun,
                                             bool includeCompleted, bool includeHistory,
                                             unsigned displayOrder, bool threadSanityDisabled)
    : schedulerName_(std::move(name)),
      queueStats_(scheduler.queueStats()),
      maxSchedulerSlip_(scheduler.maxSchedulerSlip()),
      isRootScheduler_(&scheduler == &scheduler.root()),
      threadSanityDisabled_(threadSanityDisabled),
      displayOrder_(displayOrder),
      creatorThread_(std::this_thread::get_id()) {
  if (schedulerName_.empty()) schedulerName_ = scheduler.schedulerName();
  if (includeCompleted) {
    skippedCompletedTasks_ = scheduler.getCompletedTaskStats(&completedTasks_, includeNeverRun);
  }
  if (isRootScheduler_ && includeHistory) {
    history_ = std::make_shared<History const>(scheduler.history());
  }
  skippedTasks_ = scheduler.getTaskStats(&tasks_, includeNeverRun);
}

TaskSchedulerSnapshot::TaskSchedulerSnapshot(TaskScheduler const* scheduler, std::string name,
                                             bool includeNeverRun, bool includeCompleted,
                                             bool includeHistory, unsigned displayOrder,
                                             bool threadSanityDisabled)
    : TaskSchedulerSnapshot(Alone(), *scheduler, std::move(name), includeNeverRun, includeCompleted,
                            includeHistory, displayOrder, threadSanityDisabled) {
  scheduler->forEachTaskGroup([&](TaskImpl const& parentTask, TaskGroup const& group) {
    subSchedulers_.emplace_back(
        Impl::subSchedulerKey(parentTask.getStats()),
        TaskSchedulerSnapshot(&group, "", includeNeverRun, includeCompleted, includeHistory,
                              displayOrderUnset, threadSanityDisabled));
  });
}

TaskSchedulerSnapshot TaskSchedulerSnapshot::alone(TaskScheduler const& scheduler,
                                                   bool includeNeverRun, bool includeCompleted,
                                                   bool includeHistory) {
  return TaskSchedulerSnapshot(Alone(), scheduler, "", includeNeverRun, includeCompleted,
                               includeHistory, displayOrderUnset,
                               scheduler.root().threadSanityDisabled());
}

TaskSchedulerSnapshot::~TaskSchedulerSnapshot() {
  auto const current = std::this_thread::get_id();
  BRELO_SCHEDULER_ASSERT(threadSanityDisabled_ || current == creatorThread_, "Allocated by thread ",
                         creatorThread_, " freed by ", current);
}

}  // namespace Brelo
