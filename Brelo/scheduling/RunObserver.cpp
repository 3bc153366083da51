#include "Brelo/RunObserver.h"

#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/scheduling/LoopWaits.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/SteadyNow.h"

namespace Brelo {

void RunObserver::runStarts(Run const&) noexcept {}
void RunObserver::runEnds(Run const&) noexcept {}
void RunObserver::schedulerLooks(TaskScheduler const&, TaskTimeDuration) noexcept {}
void RunObserver::loopWaited(TaskTimeDuration) noexcept {}
void RunObserver::statsCleared(TaskScheduler const&) noexcept {}
RunObserver::~RunObserver() = default;

template <class Tell>
void TaskSchedulerRoot::tellObservers(Tell tell) const {
  for (RunObserver* observer = runObserver_; observer != nullptr; observer = observer->next_)
    tell(*observer);
}

void TaskSchedulerRoot::LoopWaits::loopWaited(std::int64_t nanoseconds) noexcept {
  root_.tellObservers([&](RunObserver& observer) {
    if (observer.hears_ == RunObserver::Hears::everything)
      observer.loopWaited(TaskTimeDuration(nanoseconds));
  });
}

bool TaskSchedulerRoot::waitsObserved() const {
  bool observed = false;
  tellObservers([&](RunObserver const& observer) {
    observed = observed || observer.hears_ == RunObserver::Hears::everything;
  });
  return observed;
}

void TaskSchedulerRoot::firstRunObserverIs(RunObserver* observer) {
  for (TaskScheduler* scheduler : schedulers_)
    scheduler->runObserver_ = observer;
}

void TaskSchedulerRoot::runObserverAdd(RunObserver& observer) {
  sanityCheckCurrentRunningThread();
  tellObservers([&](RunObserver const& other) {
    BRELO_SCHEDULER_ASSERT(&other != &observer, "Already an observer of ", schedulerName());
  });
  bool const waits = observer.hears_ == RunObserver::Hears::everything;
  if (waits && loopWaits_ == nullptr) loopWaits_ = std::make_unique<LoopWaits>(*this);
  observer.next_ = runObserver_;
  firstRunObserverIs(&observer);
}

void TaskSchedulerRoot::runObserverRemove(RunObserver& observer) {
  sanityCheckCurrentRunningThread();
  if (runObserver_ == &observer) {
    firstRunObserverIs(observer.next_);
  } else {
    RunObserver* before = runObserver_;
    while (before != nullptr && before->next_ != &observer)
      before = before->next_;
    BRELO_SCHEDULER_ASSERT(before != nullptr, "No such observer of ", schedulerName());
    before->next_ = observer.next_;
  }
  observer.next_ = nullptr;
  if (!waitsObserved()) loopWaits_.reset();
}

void TaskSchedulerRoot::tellStatsCleared(TaskScheduler const& scheduler) const {
  tellObservers([&](RunObserver& observer) { observer.statsCleared(scheduler); });
}

void TaskScheduler::observedLook() {
  TaskTimeDuration const slip = schedulerRunStartTime_ - schedulerRunRequestTime_;
  root().tellObservers([&](RunObserver& observer) {
    if (observer.hears_ == RunObserver::Hears::everything) observer.schedulerLooks(*this, slip);
  });
}

void TaskScheduler::runTask(TaskImpl& task, TaskTimePoint const& request,
                            TaskTimePoint const& start, TaskTimePoint* finish) {
  if (runObserver_ == nullptr) {
    task.taskDoRun(start, finish);
  } else {
    observedRun(task, request, start, finish);
  }
}

void TaskScheduler::observedRun(TaskImpl& task, TaskTimePoint const& request,
                                TaskTimePoint const& start, TaskTimePoint* finish) {
  TaskSchedulerRoot& top = root();
  RunObserver::Run run{task,  top.observedRun_,   request, start,
                       start, TaskTimeDuration(), false,   task.taskWorkCountTotal};
  auto const ends = [&](TaskTimePoint const& end) {
    run.end = end;
    run.used = task.runTimeUntil(end);
    top.observedRun_ = run.outer;
    top.tellObservers([&](RunObserver& observer) { observer.runEnds(run); });
  };
  top.observedRun_ = &run;
  top.tellObservers([&](RunObserver& observer) { observer.runStarts(run); });
  try {
    task.taskDoRun(start, finish);
  } catch (...) {
    run.threw = true;
    ends(Impl::steadyNow());
    throw;
  }
  ends(*finish);
}

}  // namespace Brelo
