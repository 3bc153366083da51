#pragma once

#include <memory>
#include <string>

#include "Brelo/Export.h"
#include "Brelo/TaskImpl.h"
#include "Brelo/TaskTimeDuration.h"
#include "Brelo/TimerWheelEvent.h"

namespace Brelo {

/// A task that can be asked to run after a delay as well as at once.
///
/// It has one timer and one place on a run queue, and at most one of the two is in use: the
/// latest request decides, except for `scheduleTaskLowestDelay`, which only ever brings a run
/// forward. An expiry queues the task like any other; nothing runs from inside the timer. While
/// the task is suspended its timer goes on, and an expiry is made up for when it is resumed. There
/// is no periodic form: a task that repeats asks for its next run in `taskExecute()`.
///
/// A delay is a TaskTimeDuration or a number of seconds. Zero is an immediate run, a negative one
/// expires at the next pass of the loop (with jitter it is an assertion). Never is
/// `TaskTimeDuration::max()` or positive infinity.
class BRELO_EXPORT TimerTask : public TaskImpl, TimerWheelEvent {
 public:
  /// As a Task is made; the timer is idle.
  TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name);
  /// The same. Raises `std::bad_weak_ptr` if no shared pointer owns the scheduler.
  TimerTask(TaskScheduler* scheduler, TaskPriority priority, std::string name);
  ~TimerTask() override;

  /// The task is queued or its timer is armed.
  bool taskScheduled() const override;
  /// An immediate run, in place of a delayed one.
  void scheduleTask() override;
  /// Disarms the timer first.
  void taskRunFromTest() override;
  TaskStat::TaskStatus taskStatus() const override;

  /// Runs after `delay`, instead of whatever was pending. Never is `stopTimerTask()`.
  /// @{
  void scheduleTaskDelay(TaskTimeDuration delay);
  void scheduleTaskDelay(double delay);
  /// @}
  /// The same with the delay lengthened or shortened by a random part of up to that percentage,
  /// which is at most 100. The sequence of a root is the same in every process.
  /// @{
  void scheduleTaskJitterUp(TaskTimeDuration delay, unsigned char maxJitterPercentage);
  void scheduleTaskJitterUp(double delay, unsigned char maxJitterPercentage);
  void scheduleTaskJitterDown(TaskTimeDuration delay, unsigned char maxJitterPercentage);
  void scheduleTaskJitterDown(double delay, unsigned char maxJitterPercentage);
  /// @}
  /// Runs no later than `delay` from now: keeps an earlier pending run and replaces a later one.
  /// Never is an assertion.
  /// @{
  void scheduleTaskLowestDelay(TaskTimeDuration delay);
  void scheduleTaskLowestDelay(double delay);
  /// @}
  /// Disarms the timer and takes the task off its run queue.
  void stopTimerTask();

  /// Seconds to the expiry: 0.0 if due, positive infinity if the timer is not armed.
  double timerRemaining() const { return remainingTimeout(); }
  /// When the task is due, on the clock of `Brelo::time()`: now if it is queued, positive
  /// infinity if no run is coming.
  double currentExpirationTime() const;
  /// The wheel's notification: queues the task.
  void timeout() override;
  std::string timerName() const override;  ///< the task's name in quotes

 private:
  template <class T>
  void scheduleTaskDelayedPrivate(T delay, bool force);
  template <class T>
  void startDelayed(T delay, bool force, TaskTimePoint const& now);
  template <class T>
  void _scheduleTaskDelay(T delay);
  template <class T>
  void _scheduleTaskJitterUp(T delay, unsigned char maxJitterPercentage);
  template <class T>
  void _scheduleTaskJitterDown(T delay, unsigned char maxJitterPercentage);
  template <class T>
  void _scheduleTaskLowestDelay(T delay);
  template <class T>
  T jitterOffset(T delayIntoFuture, unsigned char maxJitterPercentage) const;
  bool doStartTimer(double seconds, bool force, TaskTimePoint const& now);
  void doStopTimer();
  std::shared_ptr<TimerWheel> const& wheel() const;

  bool taskTimerRunning_ = false;
};

}  // namespace Brelo
