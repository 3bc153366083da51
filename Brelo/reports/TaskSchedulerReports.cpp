// The reports that a scheduler gives out of itself.

#include <sstream>
#include <utility>

#include "Brelo/MemTrack.h"
#include "Brelo/TaskScheduler.h"

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
  frozen->renderJson(*PrintContextIs(stream));
}

std::string TaskScheduler::statsRenderJsonToString(bool includeNeverRun, bool includeCompleted,
                                                   bool includeHistory) const {
  std::ostringstream text;
  statsRenderJson(text, includeNeverRun, includeCompleted, includeHistory);
  return text.str();
}

void TaskScheduler::statsRenderJsonToBlockingFdForTest(int fd, bool includeNeverRun,
                                                       bool includeCompleted,
                                                       bool includeHistory) const {
  auto const frozen = snapshot("", includeNeverRun, includeCompleted, includeHistory,
                               TaskSchedulerSnapshot::displayOrderUnset);
  frozen->renderJson(*PrintContextIs(fd, false));
}

}  // namespace Brelo
