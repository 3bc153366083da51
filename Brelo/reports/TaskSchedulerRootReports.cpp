// The reports for people that a root gives out of its tree.

#include <iostream>

#include "Brelo/FdToStream.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/reports/StringStream.h"
#include "Brelo/reports/TextReport.h"

namespace Brelo {

void TaskSchedulerRoot::statsRenderTextForDebug(std::ostream& stream, bool includeNeverRun,
                                                bool showTaskKey, bool includeCompleted,
                                                bool includeHistory) const {
  sanityCheckCurrentRunningThread();
  std::vector<TaskSchedulerSnapshot> frozen;
  frozen.reserve(schedulers_.size());
  for (TaskScheduler const* scheduler : schedulers_) {
    frozen.push_back(TaskSchedulerSnapshot::alone(*scheduler, includeNeverRun, includeCompleted,
                                                  includeHistory));
  }
  Impl::renderText(stream, frozen, showTaskKey, includeCompleted);
}

void TaskSchedulerRoot::statsRenderTextForDebug(int fd, bool includeNeverRun, bool showTaskKey,
                                                bool includeCompleted, bool includeHistory) const {
  FdToStream stream(fd, false);
  statsRenderTextForDebug(stream, includeNeverRun, showTaskKey, includeCompleted, includeHistory);
}

std::string TaskSchedulerRoot::statsRenderTextForDebugToString(bool includeNeverRun,
                                                               bool showTaskKey,
                                                               bool includeCompleted,
                                                               bool includeHistory) const {
  Impl::StringStream text;
  statsRenderTextForDebug(text, includeNeverRun, showTaskKey, includeCompleted, includeHistory);
  return text.take();
}

void TaskSchedulerRoot::statsRenderTextForDebugStdErr() const {
  statsRenderTextForDebug(std::cerr, true, true, true, false);
}

void TaskSchedulerRoot::historyRenderTextForDebug(std::ostream& stream) const {
  history().renderText(stream);
}

void TaskSchedulerRoot::historyRenderTextForDebug(int fd) const {
  FdToStream stream(fd, false);
  historyRenderTextForDebug(stream);
}

void TaskSchedulerRoot::historyRenderTextForDebugStdErr() const {
  historyRenderTextForDebug(std::cerr);
}

std::string TaskSchedulerRoot::historyRenderTextForDebugToString() const {
  Impl::StringStream text;
  historyRenderTextForDebug(text);
  return text.take();
}

}  // namespace Brelo
