#include "Brelo/RunObserver.h"

#include <memory>
#include <utility>

#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/scheduling/LoopWaits.h"
#include "Brelo/scheduling/RunObservation.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/SteadyNow.h"

namespace Brelo {

void RunObserver::runStarts(Run const&) noexcept {}
void RunObserver::runEnds(Run const&) noexcept {}
void RunObserver::emptyLook(TaskScheduler const&, TaskTimeDuration) noexcept {}
void RunObserver::loopWaited(TaskTimeDuration) noexcept {}
void RunObserver::runMarkChanged() noexcept {}
void RunObserver::statsCleared(TaskScheduler const&) noexcept {}
RunObserver::~RunObserver() = default;

template <class Tell>
void Impl::RunObservation::tell(unsigned hearing, Tell tellIt) const {
  for (RunObserver* observer = first; observer != nullptr; observer = observer->next_) {
    if ((observer->hears_ & hearing) != 0) tellIt(*observer);
  }
}

void TaskSchedulerRoot::LoopWaits::loopWaited(std::int64_t nanoseconds) noexcept {
  root_.runObservation_->tell(RunObserver::waits, [&](RunObserver& observer) {
    observer.loopWaited(TaskTimeDuration(nanoseconds));
  });
}

RunMark& TaskSchedulerRoot::runMark() {
  return runObservation_->mark;
}

RunObserver::Run const* TaskSchedulerRoot::observedRun() const {
  return runObservation_->innermost;
}

/// After a change of the list.
void TaskSchedulerRoot::runObserversChange() {
  unsigned hears = 0;
  for (RunObserver* each = runObservation_->first; each != nullptr; each = each->next_)
    hears |= each->hears_;
  runObservation_->hears = hears;
  if ((hears & RunObserver::markChanges) == 0) runObservation_->mark.clear();
  if ((hears & RunObserver::waits) == 0) loopWaits_.reset();
  for (TaskScheduler* scheduler : schedulers_)
    scheduler->observation_ = runObservation_->first != nullptr ? runObservation_.get() : nullptr;
}

void TaskSchedulerRoot::runObserverAdd(RunObserver& observer) {
  sanityCheckCurrentRunningThread();
  for (RunObserver* each = runObservation_->first; each != nullptr; each = each->next_)
    BRELO_SCHEDULER_ASSERT(each != &observer, "Already an observer of ", schedulerName());
  bool const waits = (observer.hears_ & RunObserver::waits) != 0;
  if (waits && loopWaits_ == nullptr) loopWaits_ = std::make_unique<LoopWaits>(*this);
  observer.next_ = runObservation_->first;
  runObservation_->first = &observer;
  runObserversChange();
}

void TaskSchedulerRoot::runObserverRemove(RunObserver& observer) {
  sanityCheckCurrentRunningThread();
  RunObserver** at = &runObservation_->first;
  while (*at != nullptr && *at != &observer)
    at = &(*at)->next_;
  BRELO_SCHEDULER_ASSERT(*at != nullptr, "No such observer of ", schedulerName());
  *at = std::exchange(observer.next_, nullptr);
  runObserversChange();
}

void TaskSchedulerRoot::tellStatsCleared(TaskScheduler const& scheduler) const {
  for (RunObserver* each = runObservation_->first; each != nullptr; each = each->next_)
    each->statsCleared(scheduler);
}

void TaskScheduler::observedEmptyLook() {
  TaskTimeDuration const slip = schedulerRunStartTime_ - schedulerRunRequestTime_;
  observation_->tell(RunObserver::emptyLooks,
                     [&](RunObserver& observer) { observer.emptyLook(*this, slip); });
}

void TaskScheduler::runTask(TaskImpl& task, TaskTimePoint const& request,
                            TaskTimePoint const& start, TaskTimePoint* finish) {
  if (observation_ == nullptr) {
    task.taskDoRun(start, finish);
  } else if (observation_->hears == RunObserver::markChanges) {
    observation_->markedRun(task, start, finish);
  } else {
    recordedRun(task, request, start, TaskTimeDuration(-1), finish);
  }
}

void Impl::RunObservation::tellMarkChanged() {
  if (!mark.takeTellNextChange()) return;
  tell(RunObserver::markChanges, [](RunObserver& observer) { observer.runMarkChanged(); });
}

void TaskScheduler::recordedRun(TaskImpl& task, TaskTimePoint const& request,
                                TaskTimePoint const& start, TaskTimeDuration slip,
                                TaskTimePoint* finish) {
  Impl::RunObservation& observation = *observation_;
  RunObserver::Run run{
      task,  observation.innermost,  request, start, slip, start, TaskTimeDuration(),
      false, task.taskWorkCountTotal};
  auto const ends = [&](TaskTimePoint const& end) {
    run.end = end;
    run.used = task.runTimeUntil(end);
    observation.innermost = run.outer;
    observation.tell(RunObserver::ends, [&](RunObserver& observer) { observer.runEnds(run); });
  };
  observation.innermost = &run;
  if ((observation.hears & RunObserver::starts) != 0) {
    observation.tell(RunObserver::starts, [&](RunObserver& observer) { observer.runStarts(run); });
  }
  try {
    if ((observation.hears & RunObserver::markChanges) == 0) {
      task.taskDoRun(start, finish);
    } else {
      observation.markedRun(task, start, finish);
    }
  } catch (...) {
    run.threw = true;
    ends(Impl::steadyNow());
    throw;
  }
  ends(*finish);
}

}  // namespace Brelo
