#pragma once

#include "Brelo/RunMark.h"
#include "Brelo/RunObserver.h"
#include "Brelo/TaskImpl.h"
#include "Brelo/scheduling/SteadyNow.h"

namespace Brelo::Impl {

/// Who observes the runs of a tree, what they hear of, and what they can look at.
struct RunObservation {
  RunObserver* first = nullptr;
  unsigned hears = 0;  ///< `RunObserver::Hears` of any
  RunObserver::Run const* innermost = nullptr;
  RunMark mark;

  template <class Tell>
  void tell(unsigned hearing, Tell tellIt) const;
  void tellMarkChanged();
  /// Runs the task amid two changes of the mark.
  void markedRun(TaskImpl& task, TaskTimePoint const& start, TaskTimePoint* finish);
};

/// The task may take its scheduler with it, but not the root, and so not this.
inline void RunObservation::markedRun(TaskImpl& task, TaskTimePoint const& start,
                                      TaskTimePoint* finish) {
  TaskImpl const* const outer = mark.task();
  if (mark.runStarts(task, start)) tellMarkChanged();
  try {
    task.taskDoRun(start, finish);
  } catch (...) {
    if (mark.runEnds(outer, steadyNow())) tellMarkChanged();
    throw;
  }
  if (mark.runEnds(outer, *finish)) tellMarkChanged();
}

}  // namespace Brelo::Impl
