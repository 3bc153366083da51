#include "Brelo/TaskSchedulerRoot.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "Brelo/Assert.h"
#include "Brelo/MemTrack.h"
#include "Brelo/TaskSchedulerHistory.h"
#include "Brelo/TaskSchedulerQueueStats.h"
#include "Brelo/Thread.h"
#include "Brelo/TimerWheel.h"
#include "Brelo/platform/Backend.h"
#include "Brelo/scheduling/LoopWaits.h"
#include "Brelo/scheduling/RunObservation.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/SteadyNow.h"

std::uint32_t auxThreadCount = 0;

namespace Brelo {

using Impl::schedulerTrace;
using Impl::steadyNow;

namespace {

constexpr unsigned initialHistoryEntries = 100;

thread_local bool threadRootEnded = false;

struct ThreadRoot {
  ~ThreadRoot() { threadRootEnded = true; }
  std::shared_ptr<TaskSchedulerRoot> root;
};

std::string threadRootName() {
  if (isMainThread()) return "main";
  return "thread:" + toThreadIdString(std::this_thread::get_id());
}

}  // namespace

std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRoot::TaskSchedulerRootIs(std::string name) {
  return makeTracked<TaskSchedulerRoot>(name);
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootBreloNonShared(std::string name) {
  return TaskSchedulerRoot::TaskSchedulerRootIs(std::move(name));
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootBrelo() {
  thread_local ThreadRoot thread;
  if (threadRootEnded) return schedulerRootBreloNonShared(threadRootName());
  if (thread.root == nullptr) thread.root = schedulerRootBreloNonShared(threadRootName());
  return thread.root;
}

TaskSchedulerRoot::TaskSchedulerRoot(std::string const& name)
    : TaskScheduler(name, this, makeTracked<TaskSchedulerHistory>(initialHistoryEntries)),
      callbackControl_(Platform::getCallbackControl(this)),
      timerWheel_(getTimerWheelForTaskScheduler(Platform::eventPriorityStrictHigh)),
      runObservation_(std::make_unique<Impl::RunObservation>()),
      threadId_(pthread_self()),
      processId_(getpid()),
      isMainThread_(isMainThread()) {
  if (pthread_getname_np(pthread_self(), threadName_, sizeof threadName_) != 0) {
    threadName_[0] = '\0';
  }
  registerScheduler(this);
  followVirtualTime();
}

TaskSchedulerRoot::~TaskSchedulerRoot() {
  unregisterScheduler(this);
}

bool TaskSchedulerRoot::resetStatsInProgress() const {
  if (TaskScheduler::resetStatsInProgress()) return true;
  for (TaskScheduler const* scheduler : schedulers_) {
    if (scheduler != this && scheduler->resetStatsInProgress()) return true;
  }
  return false;
}

void TaskSchedulerRoot::requestSchedulerRun() {
  if (suspended_) {
    BRELO_TRACE(schedulerTrace, 8, "TaskSchedulerRoot",
                "{} ignore requestSchedulerRun, scheduler is suspended", *this);
    return;
  }
  callbackControl_->requestCallback();
}

void TaskSchedulerRoot::taskRegister(TaskImpl* task) {
  TaskScheduler::taskRegister(task);
}

void TaskSchedulerRoot::callback() {
  handleSchedulerRun();
}

std::string TaskSchedulerRoot::handlerName() const {
  return fmt::format("\"{}\"", schedulerName());
}

void TaskSchedulerRoot::handleSchedulerRun() {
  followVirtualTime();
  TaskScheduler::handleSchedulerRun();
}

void TaskSchedulerRoot::followVirtualTime() {
  virtualTimeIs(isMainThread_ && Platform::virtualTimeEnabled());
}

void TaskSchedulerRoot::suspendedIs(bool suspended) {
  if (suspended == suspended_) return;
  suspended_ = suspended;
  TaskTimePoint const now = steadyNow();
  if (suspended) {
    history().insert(now, TaskSchedulerEventType::schedulerSuspended, *this);
  } else {
    history().insert(now, TaskSchedulerEventType::schedulerUnsuspended, *this);
    requestSchedulerRunAndRecord(now);
  }
}

void TaskSchedulerRoot::virtualTimeIs(bool virtualTime) {
  if (virtualTime == virtualTime_) return;
  virtualTime_ = virtualTime;
  history().insert(steadyNow(),
                   virtualTime ? TaskSchedulerEventType::schedulerVirtualTimeOn
                               : TaskSchedulerEventType::schedulerVirtualTimeOff,
                   *this);
  taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::taskTestYieldRatioIs(unsigned char ratio) {
  if (ratio == taskTestYieldRatioRoot_) return;
  taskTestYieldRatioRoot_ = ratio;
  history().insert(steadyNow(),
                   ratio != 0 ? TaskSchedulerEventType::schedulerTestYieldRatioOn
                              : TaskSchedulerEventType::schedulerTestYieldRatioOff,
                   *this);
  taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::taskShouldYieldModeReevaluate() {
  for (TaskScheduler* scheduler : schedulers_)
    scheduler->taskShouldYieldModesReevaluate();
}

void TaskSchedulerRoot::taskExceptionHandlerIs(std::function<bool(_TaskBase& task)> handler) {
  taskExceptionHandler_ =
      handler ? std::make_shared<std::function<bool(_TaskBase&)> const>(std::move(handler))
              : nullptr;
}

bool TaskSchedulerRoot::taskExceptionHandled(_TaskBase& task) {
  auto const handler = taskExceptionHandler_;  // which may replace itself
  return handler != nullptr && (*handler)(task);
}

void TaskSchedulerRoot::threadSanityDisabledIs(bool disabled) {
  if (disabled == threadSanityDisabled_) return;
  BRELO_TRACE(schedulerTrace, 1, "TaskSchedulerRoot", "{} {}able thread sanity checking", *this,
              disabled ? "dis" : "en");
  threadSanityDisabled_ = disabled;
}

void TaskSchedulerRoot::sanityCheckCurrentRunningThread() const {
  std::uint64_t const thread = pthread_self();
  if (thread != threadId_) sanityCheckOtherThread(thread, __func__);
}

void TaskSchedulerRoot::sanityCheckOtherThread(std::uint64_t thread, char const* function) const {
  if (threadSanityDisabled_ || auxThreadCount != 0) return;
  pid_t const process = getpid();
  // A forked child may go on with its parent's root.
  if (process != processId_) return;
  Impl::schedulerFail(function, __LINE__, "Executing in wrong thread ", thread, "(",
                      currentThreadName(), ") pid ", process, " scheduler belongs to thread ",
                      threadId_, "(", threadName_, ") pid ", processId_);
}

std::string TaskSchedulerRoot::currentThreadName() {
  char name[16];
  return pthread_getname_np(pthread_self(), name, sizeof name) == 0 ? name : "";
}

int TaskSchedulerRoot::randomPercent() {
  return rand_r(&randomSeed_) / 21474836;
}

void TaskSchedulerRoot::registerScheduler(TaskScheduler* scheduler) {
  bool const inserted = schedulers_.insert(scheduler).second;
  BRELO_SCHEDULER_ASSERT(inserted, "insert failed for ", scheduler);
  scheduler->observation_ = observation_;
}

void TaskSchedulerRoot::unregisterScheduler(TaskScheduler* scheduler) {
  std::size_t const removed = schedulers_.erase(scheduler);
  BRELO_SCHEDULER_ASSERT(removed == 1, "delete failed for ", scheduler);
}

void TaskSchedulerRoot::forEachScheduler(
    std::function<void(TaskScheduler const&)> const& visit) const {
  for (TaskScheduler const* scheduler : schedulers_)
    visit(*scheduler);
}

std::shared_ptr<TaskScheduler> TaskSchedulerRoot::findSchedulerForTest(std::string const& name) {
  for (TaskScheduler* scheduler : schedulers_) {
    if (scheduler->schedulerName() == name) return scheduler->shared_from_this();
  }
  return nullptr;
}

std::shared_ptr<TaskScheduler const> TaskSchedulerRoot::findSchedulerForTest(
    std::string const& name) const {
  for (TaskScheduler const* scheduler : schedulers_) {
    if (scheduler->schedulerName() == name) return scheduler->shared_from_this();
  }
  return nullptr;
}

std::uint64_t TaskSchedulerRoot::totalRegisteredTaskCount() const {
  std::uint64_t count = 0;
  for (TaskScheduler const* scheduler : schedulers_)
    count += scheduler->registeredTaskCount();
  return count;
}

std::uint32_t TaskSchedulerRoot::taskGroupCount() const {
  if (schedulers_.empty()) BRELO_FAIL("TaskSchedulerRoot", "");
  return static_cast<std::uint32_t>(schedulers_.size() - 1);
}

TaskSchedulerQueueStats TaskSchedulerRoot::queueStatsRoot() const {
  TaskSchedulerQueueStats sum;
  for (TaskScheduler const* scheduler : schedulers_)
    sum += scheduler->queueStats();
  return sum;
}

void TaskSchedulerRoot::doUpdateSchedulerLatency() {
  checkSchedulerLatency();
  schedulerRunRequestTimeIs(steadyNow());
}

unsigned TaskSchedulerRoot::historyEntryCount() const {
  return history().capacity();
}

void TaskSchedulerRoot::historyEntryCountIs(unsigned count) {
  history().capacityIs(count);
}

void TaskSchedulerRoot::clearHistory() {
  BRELO_TRACE(schedulerTrace, 2, "TaskSchedulerRoot", "{} history cleared", *this);
  history().clear();
}

}  // namespace Brelo
