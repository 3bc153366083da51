#include "Brelo/TimerTask.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

#include "Brelo/TaskSchedulerBase.h"
#include "Brelo/TaskSchedulerHistory.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/Time.h"
#include "Brelo/TimerWheel.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/SteadyNow.h"

namespace Brelo {

using Impl::schedulerTrace;
using Impl::steadyClockNow;
using Impl::steadyNow;

namespace {

bool isNever(TaskTimeDuration delay) {
  return delay == TaskTimeDuration::max();
}
bool isNever(double delay) {
  return delay == std::numeric_limits<double>::infinity();
}

bool isZero(TaskTimeDuration delay) {
  return delay.count() == 0;
}
bool isZero(double delay) {
  return delay == 0;
}

double toSeconds(TaskTimeDuration delay) {
  return static_cast<double>(delay.count()) / 1e9;
}
double toSeconds(double delay) {
  return delay;
}

// How a delay stands in an assertion.
std::int64_t plain(TaskTimeDuration delay) {
  return delay.count();
}
double plain(double delay) {
  return delay;
}

TaskTimeDuration percentOf(TaskTimeDuration delay, int percent, unsigned char maxPercent) {
  // In 128 bits the product of any delay is exact.
  __extension__ using Wide = __int128;
  return TaskTimeDuration(
      static_cast<std::int64_t>(Wide{percent} * (Wide{maxPercent} * delay.count()) / 10000));
}
double percentOf(double delay, int percent, unsigned char maxPercent) {
  return maxPercent * delay * percent / 10000.0;
}

// The latest delay that is not never.
constexpr TaskTimeDuration longest{std::numeric_limits<std::int64_t>::max() - 1};

TaskTimeDuration sum(TaskTimeDuration delay, TaskTimeDuration offset) {
  std::int64_t total;
  if (__builtin_add_overflow(delay.count(), offset.count(), &total)) return longest;
  return std::min(TaskTimeDuration(total), longest);
}
double sum(double delay, double offset) {
  return std::min(delay + offset, std::numeric_limits<double>::max());
}

}  // namespace

TimerTask::TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     std::string name)
    : TaskImpl(std::move(scheduler), priority, name) {}

TimerTask::TimerTask(TaskScheduler* scheduler, TaskPriority priority, std::string name)
    : TaskImpl(sharedScheduler(scheduler), priority, name) {}

TimerTask::~TimerTask() {
  stopTimerTask();
}

std::shared_ptr<TimerWheel> const& TimerTask::wheel() const {
  return taskScheduler_->root().timerWheel();
}

bool TimerTask::taskScheduled() const {
  sanityCheckCurrentRunningThread();
  return taskTimerRunning_ || onRunQueue();
}

void TimerTask::scheduleTask() {
  if (taskTimerRunning_) doStopTimer();
  TaskImpl::scheduleTask();
}

void TimerTask::taskRunFromTest() {
  doStopTimer();
  TaskImpl::taskRunFromTest();
}

TaskStat::TaskStatus TimerTask::taskStatus() const {
  TaskStat::TaskStatus status = TaskImpl::taskStatus();
  status.taskTimerIs(true);
  status.taskTimerRunningIs(taskTimerRunning_);
  return status;
}

std::string TimerTask::timerName() const {
  return fmt::format("\"{}\"", taskName());
}

void TimerTask::timeout() {
  taskTimerRunning_ = false;
  TaskImpl::scheduleTask();
}

// A start is inlined as a whole: short enough, and the processor reaches the memory of the next one
// while it still waits for that of this one.
[[gnu::always_inline]] inline bool TimerTask::doStartTimer(double seconds, bool force,
                                                           TaskTimePoint const& now) {
  if (!force && !(seconds < remainingTimeout())) return false;
  std::chrono::nanoseconds const sinceBoot = now.time_since_epoch();
  wheel()->timerStart(this, seconds, timeAtMonotonic(sinceBoot.count()));
  return true;
}

void TimerTask::doStopTimer() {
  if (!taskTimerRunning_) return;
  taskTimerRunning_ = false;
  delTimeout(wheel());
}

template <class T>
void TimerTask::scheduleTaskDelayedPrivate(T delay, bool force) {
  if (isZero(delay)) return TimerTask::scheduleTask();
  startDelayed(delay, force, steadyClockNow());
}

template <class T>
[[gnu::always_inline]] inline void TimerTask::startDelayed(T delay, bool force,
                                                           TaskTimePoint const& now) {
  if (!force && onRunQueue()) {
    BRELO_TRACE(schedulerTrace, 8, "TimerTask", "Already on runQueue {}", *this);
    return;
  }
  if (doStartTimer(toSeconds(delay), force, now)) {
    if (force) unscheduleTaskPrivate(now);
    taskTimerRunning_ = true;
    BRELO_TRACE(schedulerTrace, 8, "TimerTask", "Timer started {} delay {}", *this, delay);
    taskHistoryInsert(now, TaskSchedulerEventType::timerStart);
    taskBusyIs(taskScheduled(), now);
  } else {
    BRELO_TRACE(schedulerTrace, 8, "TimerTask", "Timer already running {} expire {}", *this,
                expirationTime());
    BRELO_SCHEDULER_ASSERT(taskTimerRunning_, "Task: ", this);
  }
}

template <class T>
T TimerTask::jitterOffset(T delayIntoFuture, unsigned char maxJitterPercentage) const {
  BRELO_SCHEDULER_ASSERT(maxJitterPercentage <= 100, "maxJitterPercentage: ", maxJitterPercentage,
                         " > 100");
  T const offset =
      percentOf(delayIntoFuture, taskScheduler_->root().randomPercent(), maxJitterPercentage);
  BRELO_SCHEDULER_ASSERT(!(offset > delayIntoFuture), "offset( ", plain(offset),
                         " ) > delayIntoFuture( ", plain(delayIntoFuture), " )");
  return offset;
}

template <class T>
void TimerTask::_scheduleTaskJitterUp(T delay, unsigned char maxJitterPercentage) {
  sanityCheckCurrentRunningThread();
  if (isNever(delay)) return stopTimerTask();
  T const offset = jitterOffset(delay, maxJitterPercentage);
  BRELO_TRACE(schedulerTrace, 9, "TimerTask", "Timer jitterUp {} delay {} + {} = {}", *this, delay,
              offset, sum(delay, offset));
  scheduleTaskDelayedPrivate(sum(delay, offset), true);
}

template <class T>
void TimerTask::_scheduleTaskJitterDown(T delay, unsigned char maxJitterPercentage) {
  sanityCheckCurrentRunningThread();
  if (isNever(delay)) return stopTimerTask();
  T const offset = jitterOffset(delay, maxJitterPercentage);
  BRELO_TRACE(schedulerTrace, 9, "TimerTask", "Timer jitterDown {} delay {} - {} = {}", *this,
              delay, offset, delay - offset);
  scheduleTaskDelayedPrivate(delay - offset, true);
}

template <class T>
void TimerTask::_scheduleTaskLowestDelay(T delay) {
  sanityCheckCurrentRunningThread();
  BRELO_SCHEDULER_ASSERT(!isNever(delay), "delayIntoFuture: ", plain(delay));
  scheduleTaskDelayedPrivate(delay, false);
}

/// One task among a million is in no cache: the processor fetches it while the clock is read.
template <class T>
void TimerTask::_scheduleTaskDelay(T delay) {
  prefetch();
  __builtin_prefetch(&taskScheduler_);
  if (isNever(delay)) return stopTimerTask();
  bool const atOnce = isZero(delay);
  TaskTimePoint const now = atOnce ? TaskTimePoint() : steadyClockNow();
  sanityCheckCurrentRunningThread();
  atOnce ? TimerTask::scheduleTask() : startDelayed(delay, true, now);
}

void TimerTask::scheduleTaskDelay(TaskTimeDuration delay) {
  _scheduleTaskDelay(delay);
}

void TimerTask::scheduleTaskDelay(double delay) {
  _scheduleTaskDelay(delay);
}

void TimerTask::scheduleTaskJitterUp(TaskTimeDuration delay, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterUp(delay, maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterUp(double delay, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterUp(delay, maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterDown(TaskTimeDuration delay, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterDown(delay, maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterDown(double delay, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterDown(delay, maxJitterPercentage);
}

void TimerTask::scheduleTaskLowestDelay(TaskTimeDuration delay) {
  _scheduleTaskLowestDelay(delay);
}

void TimerTask::scheduleTaskLowestDelay(double delay) {
  _scheduleTaskLowestDelay(delay);
}

void TimerTask::stopTimerTask() {
  sanityCheckCurrentRunningThread();
  TaskTimePoint const now = steadyNow();
  if (taskTimerRunning_) {
    BRELO_TRACE(schedulerTrace, 9, "TimerTask", "Timer stopped {}, was running", *this);
    taskHistoryInsert(now, TaskSchedulerEventType::timerStop);
    doStopTimer();
  } else {
    BRELO_TRACE(schedulerTrace, 9, "TimerTask", "Timer stopped {}, was not running", *this);
  }
  unscheduleTaskPrivate(now);
  taskBusyIs(taskScheduled(), now);
}

double TimerTask::currentExpirationTime() const {
  sanityCheckCurrentRunningThread();
  if (onRunQueue()) return time();
  return expirationTime();
}

}  // namespace Brelo
