// The reports that a scheduler gives out of itself.

#include <utility>

#include "Brelo/MemTrack.h"
#include "Brelo/TaskScheduler.h"
#include "Brelo/reports/StringStream.h"

namespace Brelo {

void TaskScheduler::forEachTaskGroup(
    std::function<void(TaskImpl const& parentTask, TaskGroup const& group)> const& visit) const {
  for (TaskImpl const& task : registeredTasks_) {
    if (TaskGroup const* const group = task.isTaskGroup()) visit(task, *group);
  }
}

std::shared_ptr<TaskSchedulerSnapshot const> TaskScheduler::snapshot(std::string name,
                                                                     bool includeNeverRun,
                                                                     bool includeCompleted,
                                                                     bool includeHistory,
                                                                     unsigned displayOrder) const {
  root().sanityCheckCurrentRunningThread();
  return makeTracked<TaskSchedulerSnapshot>(this, std::move(name), includeNeverRun,
                                            includeCompleted, includeHistory, displayOrder,
                                            root().threadSanityDisabled());
}

std::shared_ptr<TaskSchedulerPrintContext> TaskScheduler::PrintContextIs(std::ostream& stream) {
  return makeTracked<TaskSchedulerPrintContext>(stream);
}

std::shared_ptr<TaskSchedulerPrintContext> TaskScheduler::PrintContextIs(int fd, bool closeFd) {
  return makeTracked<TaskSchedulerPrintContext>(fd, closeFd);
}

void TaskScheduler::statsRenderJson(std::ostream& stream, bool includeNeverRun,
                                    bool includeCompleted, bool includeHistory) const {
  auto const frozen = snapshot("", includeNeverRun, includeCompleted, includeHistory,
                               TaskSchedulerSnapshot::displayOrderUnset);
  auto const context = PrintContextIs(stream);
  frozen->renderJson(*context);
  context->closeJson();
}

std::string TaskScheduler::statsRenderJsonToString(bool includeNeverRun, bool includeCompleted,
                                                   bool includeHistory) const {
  Impl::StringStream text;
  statsRenderJson(text, includeNeverRun, includeCompleted, includeHistory);
  return text.take();
}

void TaskScheduler::statsRenderJsonToBlockingFdForTest(int fd, bool includeNeverRun,
                                                       bool includeCompleted,
                                                       bool includeHistory) const {
  auto const frozen = snapshot("", includeNeverRun, includeCompleted, includeHistory,
                               TaskSchedulerSnapshot::displayOrderUnset);
  frozen->renderJson(*PrintContextIs(fd, false));
}

}  // namespace Brelo
