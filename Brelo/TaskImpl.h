#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Brelo/Export.h"
#include "Brelo/IntrusiveBookmarkLinkedList.h"
#include "Brelo/IntrusiveLinkedListBase.h"
#include "Brelo/TaskBase.h"
#include "Brelo/TaskStat.h"
#include "Brelo/TaskTimeDuration.h"

namespace Brelo {

class TaskGroup;

/// A task with one place on a run queue: how it is scheduled, run, measured and ended.
///
/// A run goes to the end of `taskExecute()`; nothing preempts it. All of it belongs to the thread
/// of the task's scheduler. An exception from `taskExecute()` passes through and leaves the
/// scheduler without a further run until something requests one, unless the root has somebody who
/// deals with it (`TaskSchedulerRoot::taskExceptionHandlerIs`).
class BRELO_EXPORT TaskImpl : public _TaskBase, public TaskCounters {
 public:
  /// Where `taskShouldYield()` takes the time from.
  enum TaskShouldYieldMode : std::uint8_t {
    yieldModeClock = 0,        ///< the steady clock
    yieldModeVirtualTime = 1,  ///< the host's time, which virtual time moves
    yieldModeRatio = 2,        ///< nowhere: every n-th question says yield
  };

  /// Leaves the run queue and the scheduler, which keeps the figures.
  ~TaskImpl() override;

  void taskStatsNameIs(std::string name) override;
  /// The task is on its run queue.
  bool taskScheduled() const override;
  bool taskShouldYield() const override;
  void taskWorkCountInc(unsigned long count) override;
  void taskWorkPendingIs(unsigned pending) override;

  /// Asks for one run, behind the tasks of the level that are queued already. Does nothing on a
  /// queued task; from its own run it asks for another one. On a suspended task the request is
  /// dropped: resuming gives the task a run anyway.
  virtual void scheduleTask();
  /// Runs the task here and now, outside the scheduler's order.
  virtual void taskRunFromTest();
  /// What the task is and does at the moment.
  virtual TaskStat::TaskStatus taskStatus() const;
  /// The task's work. The scheduler holds the task alive over it.
  virtual void taskExecute() = 0;

  /// Takes the task off its run queue, if it is there.
  void unscheduleTask();
  /// Suspends, which takes the task off its queue, or resumes, which gives it a run whether or
  /// not one was asked for.
  /// @{
  void taskSuspendedIs(bool suspended);
  bool taskSuspended() const { return taskSuspended_; }
  /// @}
  /// `taskRunFromTest()` with the scheduler's accounting, and a request for its next run.
  void taskRunAndRecordFromTest();

  /// Whether the figures are kept after the task has ended; true at first. Without that the task
  /// stays counted in `TaskScheduler::tasksPerPriority`.
  void includeInCompletedTaskIs(bool include) { includeInCompletedTask = include; }
  /// Time used so far in the run. Outside of one it is an assertion.
  TaskTimeDuration taskCurrentRunTime() const;

  /// How long a run may take before `taskShouldYield()` says so: 1 ns to 1 s, or without the
  /// upper bound. Anything else is an assertion.
  /// @{
  void taskQuantumIs(TaskTimeDuration quantum);
  void taskQuantumNoCheckIs(TaskTimeDuration quantum);
  TaskTimeDuration taskQuantum() const { return taskQuantum_; }
  /// @}
  /// Makes every `ratio`-th question of `taskShouldYield()` say yield, whatever the time; 0 hands
  /// the task back to the root's ratio. Forcing is a ratio of 1.
  /// @{
  void taskTestYieldRatioIs(unsigned char ratio);
  unsigned char taskTestYieldRatio() const { return taskTestYieldRatio_; }
  void taskForceYieldInTestIs(bool on) { taskTestYieldRatioIs(on ? 1 : 0); }
  bool taskForceYieldInTest() const { return taskTestYieldRatio_ == 1; }
  /// @}
  /// How and by which ratio `taskShouldYield()` answers. Follows from the task's ratio, the root's
  /// and virtual time; for the library to set.
  /// @{
  TaskShouldYieldMode taskShouldYieldMode() const { return taskShouldYieldMode_; }
  void taskShouldYieldModeIs(TaskShouldYieldMode mode);
  void taskShouldYieldModeReevaluate();
  void taskTestYieldRatioEffectiveIs(unsigned char ratio);
  /// @}

  /// A copy of the counters.
  TaskStat getStats() const;
  /// Zeroes the counters and calls `handleResetStats()`.
  void resetStats();

  /// The group whose parent task this is, or null.
  TaskGroup* isTaskGroup() const;
  /// Asserts that the calling thread is the scheduler's.
  void sanityCheckCurrentRunningThread() const;

  /// For the scheduler: the parts of a run, and where the task is. The latest run's start, the
  /// latest entry into a queue, and the time used from the start to `now`.
  /// @{
  void taskDoRun(TaskTimePoint const& now, TaskTimePoint* finish);
  TaskTimePoint const& taskRunStartTime() const { return taskRunStartTime_; }
  TaskTimePoint const& taskScheduleTime() const { return taskScheduleTime_; }
  TaskTimeDuration runTimeUntil(TaskTimePoint const& now) const;
  void doUpdateSchedulingLatency(TaskTimePoint const& now);
  bool onRunQueue() const { return taskRunQueueLink_.isLinked(); }
  bool registered() const { return taskRegisteredLink_.isLinked(); }
  bool includedInCompletedTask() const { return includeInCompletedTask; }
  /// @}

 protected:
  /// Registers the task, idle, with the scheduler, whose default quantum it gets. The priority
  /// must be a level.
  TaskImpl(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
           std::string const& name);

  /// `scheduleTask()` and `unscheduleTask()` of this class, for who has read the clock in the same
  /// step.
  /// @{
  void scheduleTaskAt(TaskTimePoint const& now);
  void unscheduleTaskAt(TaskTimePoint const& now);
  /// @}
  /// Called in the catch block for what `taskExecute()` lets pass. True: the run goes on as if it
  /// had returned. Asks the root.
  virtual bool handleTaskException();
  /// Leaves the scheduler as the destructor would, without ending the object.
  void handleDestroy();
  /// Takes the task off its run queue, if it is there, and says nothing of busy and idle.
  void unscheduleTaskPrivate(TaskTimePoint const& now);

 private:
  void handleInitialized();
  void scheduleTaskPrivate(TaskTimePoint const& now);
  bool countViolation(TaskTimeDuration used);
  bool clockSaysYield() const;

  bool taskSuspended_ : 1;
  bool includeInCompletedTask : 1;
  TaskShouldYieldMode taskShouldYieldMode_ = yieldModeClock;
  bool taskCurrentlyRunning_ = false;
  TaskTimeDuration taskQuantum_;
  TaskTimePoint taskScheduleTime_;
  TaskTimePoint taskRunStartTime_;
  mutable std::uint64_t taskYieldCheckTicks_ = 0;

  static constexpr std::uint32_t taskMagicNumberConstructed = 0x42BE5AFE;
  static constexpr std::uint32_t taskMagicNumberEnded = 0xDEADDEAD;

  std::uint32_t taskMagicNumber_ = taskMagicNumberConstructed;
  BookmarkListLinkNode<TaskImpl> taskRegisteredLink_;
  ListLinkNode<TaskImpl> taskRunQueueLink_;  // last, beside the timer of a TimerTask

 public:
  /// The lists that a scheduler keeps its tasks on.
  /// @{
  using RunQueueList = List<TaskImpl, ListLinkNode<TaskImpl>, &TaskImpl::taskRunQueueLink_, void>;
  using RegisteredList =
      BookmarkList<TaskImpl, BookmarkListLinkNode<TaskImpl>, &TaskImpl::taskRegisteredLink_, void>;
  /// @}
};

}  // namespace Brelo
