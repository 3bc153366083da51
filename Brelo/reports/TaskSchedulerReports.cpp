// The reports that a scheduler gives out of itself.

#include <utility>

#include "Brelo/MemTrack.h"
#include "Brelo/TaskScheduler.h"
#include "Brelo/reports/StringStream.h"

namespace Brelo {

void TaskSchedulerReports::forEachTask(
    std::function<bool(TaskImpl const& task)> const& visit) const {
  for (TaskImpl const& task : scheduler().registeredTasks_) {
    if (!visit(task)) return;
  }
}

void TaskSchedulerReports::forEachTaskGroup(
    std::function<void(TaskImpl const& parentTask, TaskGroup const& group)> const& visit) const {
  for (TaskImpl const& task : scheduler().registeredTasks_) {
    if (TaskGroup const* const group = task.isTaskGroup()) visit(task, *group);
  }
}

std::shared_ptr<TaskSchedulerSnapshot const> TaskSchedulerReports::snapshot(
    std::string name, bool includeNeverRun, bool includeCompleted, bool includeHistory,
    unsigned displayOrder) const {
  scheduler().root().sanityCheckCurrentRunningThread();
  return makeTracked<TaskSchedulerSnapshot>(&scheduler(), std::move(name), includeNeverRun,
                                            includeCompleted, includeHistory, displayOrder,
                                            scheduler().root().threadSanityDisabled());
}

std::shared_ptr<TaskSchedulerPrintContext> TaskSchedulerReports::PrintContextIs(
    std::ostream& stream) {
  return makeTracked<TaskSchedulerPrintContext>(stream);
}

std::shared_ptr<TaskSchedulerPrintContext> TaskSchedulerReports::PrintContextIs(int fd,
                                                                                bool closeFd) {
  return makeTracked<TaskSchedulerPrintContext>(fd, closeFd);
}

void TaskSchedulerReports::statsRenderJson(std::ostream& stream, bool includeNeverRun,
                                           bool includeCompleted, bool includeHistory) const {
  auto const frozen = snapshot("", includeNeverRun, includeCompleted, includeHistory,
                               TaskSchedulerSnapshot::displayOrderUnset);
  auto const context = PrintContextIs(stream);
  frozen->renderJson(*context);
  context->closeJson();
}

std::string TaskSchedulerReports::statsRenderJsonToString(bool includeNeverRun,
                                                          bool includeCompleted,
                                                          bool includeHistory) const {
  Impl::StringStream text;
  statsRenderJson(text, includeNeverRun, includeCompleted, includeHistory);
  return text.take();
}

void TaskSchedulerReports::statsRenderJsonToBlockingFdForTest(int fd, bool includeNeverRun,
                                                              bool includeCompleted,
                                                              bool includeHistory) const {
  auto const frozen = snapshot("", includeNeverRun, includeCompleted, includeHistory,
                               TaskSchedulerSnapshot::displayOrderUnset);
  frozen->renderJson(*PrintContextIs(fd, false));
}

}  // namespace Brelo
