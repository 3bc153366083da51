#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "Brelo/Export.h"
#include "Brelo/Formatter.h"
#include "Brelo/TaskImpl.h"
#include "Brelo/TaskSchedulerCounts.h"
#include "Brelo/TaskSchedulerReports.h"

namespace Brelo {

namespace Impl {
struct RunObservation;
}

class TaskSchedulerHistory;
class TaskSchedulerRoot;

/// A cooperative scheduler: five run queues, of which each run picks and runs one task.
///
/// While anything is runnable exactly one request for a run is outstanding; the run that finds
/// nothing makes the scheduler idle. Runs are asked for through `requestSchedulerRun()`: the
/// root (TaskSchedulerRoot) asks the event platform, a group (TaskGroup) the scheduler above.
///
/// Owned through shared pointers, by its tasks among others. All of it belongs to the root's
/// thread; nothing is locked. Wrong use is an assertion, not a result. Clients include
/// Brelo/TaskScheduler.h, which also has what the operations here take and give.
class BRELO_EXPORT TaskScheduler : public TaskSchedulerCounts,
                                   public TaskSchedulerReports,
                                   public std::enable_shared_from_this<TaskScheduler> {
 public:
  using TaskRunQueues = Brelo::TaskRunQueues;  ///< what the tasks are queued on
  class SnapshotRenderJsonTask;                ///< an export under way, with the task that writes
  class SnapshotWriteJsonTask;

  // What applications call.

  std::string const& schedulerName() const { return schedulerName_.string(); }  ///< never changes
  /// The quantum of tasks made from now on; not checked. 20 ms at first, in a group that of the
  /// scheduler above.
  /// @{
  void defaultTaskQuantumIs(TaskTimeDuration quantum) { defaultTaskQuantum_ = quantum; }
  TaskTimeDuration defaultTaskQuantum() const { return defaultTaskQuantum_; }
  /// @}
  /// Zero all figures, at once (of groups in the background), or in the background by a task of
  /// priority `normal` (in a group that enforces a priority, of that one). A call during a reset
  /// starts it anew. A scheduler that has done this is not destroyed: the task holds it.
  /// @{
  void clearStats();
  void resetStats();
  virtual bool resetStatsInProgress() const;  ///< in the background
  /// @}

  // What tests call.

  /// The first registered task of that name, newest first, or null.
  std::shared_ptr<_TaskBase> taskForTest(std::string const& name);

  // What tasks call.

  /// The top of the tree; a root is its own.
  TaskSchedulerRoot& root() const { return *taskSchedulerRoot_; }
  /// The ring of events, which the whole tree shares.
  /// @{
  TaskSchedulerHistory& history() const { return *schedulerHistory_; }
  std::shared_ptr<TaskSchedulerHistory> const& schedulerHistory() const {
    return schedulerHistory_;
  }
  /// @}
  /// Puts a task that is on no queue on the one of its level.
  void enqueue(TaskImpl& task);
  /// The task of this scheduler that has been queued for the longest time, or null.
  TaskImpl const* longestQueuedTask() const;
  /// Takes a queued task off, unrun.
  void unscheduleTask(TaskTimePoint const& now, TaskImpl* task);
  /// Takes a queued task off in order to run it: off the queue given, or that of its level.
  /// @{
  void taskSchedulerUnlinkTask(TaskTimePoint const& now, TaskRunQueues::TaskRunQueue& queue,
                               TaskImpl* task);
  void taskSchedulerUnlinkTask(TaskTimePoint const& now, TaskImpl* task);
  /// @}
  /// The task is made to yield in tests, or not any more.
  void taskForceYieldInTestNotify(TaskImpl* task, bool on);
  /// The host's time at the start of the run that is measured by it; what has passed since.
  /// @{
  void virtualRunStarts();
  double virtualRunTime() const;
  /// @}

  // What the library calls: a run, its steps, and the figures.

  /// Asks for one run; a second request before the run changes nothing.
  virtual void requestSchedulerRun() = 0;
  /// The same, with the time from which the slip of the run is counted.
  void requestSchedulerRunAndRecord(TaskTimePoint const& time);
  /// Takes the time as the run's start and notes the slip. Returns it.
  TaskTimePoint checkSchedulerLatency();
  /// One run: picks and runs at most one task.
  void handleSchedulerRun();
  /// Runs a task that is on no queue; `request` is when it was queued. Tells the root's observers.
  void runTask(TaskImpl& task, TaskTimePoint const& request, TaskTimePoint const& start,
               TaskTimePoint* finish);
  /// Takes the next task of level `from` or below off its queue, or returns null.
  TaskImpl* pickOneTask(TaskTimePoint const& now, TaskPriority from);
  /// Whether this pick passes `priority` over for a lower level.
  bool attemptLowerPriorityBump(TaskPriority priority, unsigned consecutiveRuns) const;
  /// A run is coming; the one that finds nothing ends this. A rising edge requests it.
  /// @{
  void schedulerHasRunnableTasksIs(bool value, TaskTimePoint const& time);
  bool schedulerHasRunnableTasks() const { return schedulerHasRunnableTasks_; }
  /// @}
  /// The two moves of all levels; see TaskRunQueues.
  /// @{
  void taskRunQueuesMovePersistentToTemporary();
  void taskRunQueuesMoveTemporaryToPersistent();
  /// @}
  /// The set of tasks that are made to yield became empty or stopped being so.
  virtual void handleTaskForceYieldInTest() = 0;
  /// `taskShouldYieldModeReevaluate()` of every task registered here.
  void taskShouldYieldModesReevaluate();
  /// A task begins, with a priority that must be a level, or ends and leaves its figures.
  /// @{
  virtual void taskRegister(TaskImpl* task);
  void taskUnregister(TaskImpl* task);
  /// @}
  /// Takes over the figures of a task that ends, if they are wanted. Those of a stats name for
  /// which there is no memory are lost.
  void updateCompletedTaskStats(TaskImpl* task);
  /// Merges the record into the one kept under `name`.
  void completedTaskStatsInc(ConstStringRef const& name, TaskStat stat);

  ConstStringRef const& schedulerNameRef() const { return schedulerName_; }   ///< the same
  std::uint64_t registeredTaskCount() const { return registeredTaskCount_; }  ///< live tasks
  /// The longest delay between a request for a run and the run.
  TaskTimeDuration maxSchedulerSlip() const { return maxSchedulerSlip_; }

  virtual ~TaskScheduler();

 protected:
  /// Idle; `root` and the tree's history are those of the scheduler above, or a root's own.
  TaskScheduler(std::string const& name, TaskSchedulerRoot* root,
                std::shared_ptr<TaskSchedulerHistory> history);

  /// Whether a task is made to yield in tests.
  bool hasForcedYieldTasks() const;
  /// From when the slip of the next run is counted.
  void schedulerRunRequestTimeIs(TaskTimePoint const& time) { schedulerRunRequestTime_ = time; }
  /// The priority of the tasks that the library itself makes on this scheduler.
  void ownTaskPriorityIs(TaskPriority priority) { ownTaskPriority_ = priority; }

 private:
  friend class TaskSchedulerReports;
  friend class TaskSchedulerRoot;
  class ResetStatsTask;
  struct Parts;

  void clearStatsCommon();
  void recordedRun(TaskImpl& task, TaskTimePoint const& request, TaskTimePoint const& start,
                   TaskTimeDuration slip, TaskTimePoint* finish);
  void observedEmptyLook();

  std::shared_ptr<TaskSchedulerHistory> schedulerHistory_;  // outlives all names below
  ConstStringRef schedulerName_;
  TaskSchedulerRoot* taskSchedulerRoot_;
  std::unique_ptr<Parts> parts_;
  std::shared_ptr<_TaskBase> currentTask_;
  TaskTimePoint schedulerRunRequestTime_;
  TaskTimePoint schedulerRunStartTime_;
  TaskTimeDuration maxSchedulerSlip_;
  TaskTimeDuration defaultTaskQuantum_{20'000'000};
  double virtualRunStartTime_ = 0;
  std::uint64_t registeredTaskCount_ = 0;
  TaskPriority ownTaskPriority_ = TaskPriority::normal;
  bool schedulerHasRunnableTasks_ = false;
  Impl::RunObservation* observation_ = nullptr;  // of the root, while there are observers
  TaskImpl::RegisteredList registeredTasks_;     // newest first
};

inline TaskScheduler& TaskSchedulerReports::scheduler() {
  return static_cast<TaskScheduler&>(*this);
}

inline TaskScheduler const& TaskSchedulerReports::scheduler() const {
  return static_cast<TaskScheduler const&>(*this);
}

}  // namespace Brelo
