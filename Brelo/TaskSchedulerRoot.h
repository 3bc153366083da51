#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "Brelo/Export.h"
#include "Brelo/Platform.h"
#include "Brelo/RunMark.h"
#include "Brelo/RunObserver.h"
#include "Brelo/TaskSchedulerBase.h"

/// While it is not 0, no root checks which thread it is used on. Kept by the application,
/// and read without synchronisation.
BRELO_EXPORT extern std::uint32_t auxThreadCount;

namespace Brelo {

class TimerWheel;

/// The top of one thread's scheduling tree: the link to the event platform, the thread check,
/// the switches that reach every task, and the timer wheel of all its timer tasks.
///
/// Owned by its tasks and groups and by whoever holds it; a thread's own root (see
/// `schedulerRootBrelo`) dies with the thread unless tasks still hold it. Each run is one
/// platform callback, so the event loop looks at timers and descriptors between any two tasks.
class BRELO_EXPORT TaskSchedulerRoot : public TaskScheduler, Platform::CallbackHandler {
 public:
  /// A new root, owned by the caller.
  static std::shared_ptr<TaskSchedulerRoot> TaskSchedulerRootIs(std::string name);

  /// What `TaskSchedulerRootIs` makes, for the calling thread and its backend; it must be owned by
  /// a shared pointer.
  explicit TaskSchedulerRoot(std::string const& name);
  ~TaskSchedulerRoot() override;

  /// Of this scheduler or of any other of the tree.
  bool resetStatsInProgress() const override;
  /// Asks the event platform for a run. While suspended the request is dropped.
  void requestSchedulerRun() override;
  void handleTaskForceYieldInTest() override {}
  void taskRegister(TaskImpl* task) override;
  void callback() override;                  ///< the run that was asked for
  std::string handlerName() const override;  ///< the root's name in quotes

  /// Follows the host's virtual time, then runs at most one task.
  void handleSchedulerRun();
  /// Stops or resumes all running in the tree. Tasks can still be scheduled meanwhile.
  /// @{
  void suspendedIs(bool suspended);
  bool suspended() const { return suspended_; }
  /// @}
  /// Whether quanta are measured by the host's time instead of the steady clock. The main
  /// thread's root follows the host's switch at each run; any other is set to false there.
  /// @{
  void virtualTimeIs(bool virtualTime);
  bool virtualTime() const { return virtualTime_; }
  /// @}
  /// `taskTestYieldRatioIs` for every task of the tree that has no ratio of its own; 0 for none.
  /// @{
  void taskTestYieldRatioIs(unsigned char ratio);
  unsigned char taskTestYieldRatio() const { return taskTestYieldRatioRoot_; }
  /// @}
  /// `TaskImpl::taskShouldYieldModeReevaluate()` of every task of the tree.
  void taskShouldYieldModeReevaluate();

  /// Who is asked for what a task of the tree lets pass, inside the catch block, so that it may
  /// rethrow to look at it. True means dealt with: the run is accounted for like any other, the
  /// next one is requested, and the task can run again. False, or an exception of its own, goes on
  /// to the loop's entry, as all do without a handler: it is empty at first. A descriptor task is
  /// asked for as itself; one that has ended meanwhile as its inner task. What comes out of a group
  /// has been asked for with the task that let it pass.
  void taskExceptionHandlerIs(std::function<bool(_TaskBase& task)> handler);
  /// Asks it, for the library.
  bool taskExceptionHandled(_TaskBase& task);

  /// From now on `observer` is told of each run in the tree, and of the waits of the thread's loop,
  /// until it is removed, which is before it or this ends. Any number; each is added once. Without
  /// one, a run pays a load and a branch.
  /// @{
  void runObserverAdd(RunObserver& observer);
  void runObserverRemove(RunObserver& observer);
  /// @}
  /// Tells the observers, for the library.
  void tellStatsCleared(TaskScheduler const& scheduler) const;
  /// The innermost run whose start or end an observer hears of, or null.
  RunObserver::Run const* observedRun() const;
  /// The innermost run, for who looks from beside; as long as this lives, and kept up while an
  /// observer hears of its changes. Else it says that nothing runs.
  RunMark& runMark();

  /// Whether the thread check is off for this tree. It adds no locking.
  /// @{
  void threadSanityDisabledIs(bool disabled);
  bool threadSanityDisabled() const { return threadSanityDisabled_; }
  /// @}
  /// Asserts that the caller is the owner's thread, or a forked child.
  void sanityCheckCurrentRunningThread() const;
  /// The calling thread's name, empty if it cannot be had.
  static std::string currentThreadName();

  /// 0 to 100; the sequence is the same for every root from its start.
  int randomPercent();

  /// For the schedulers of the tree, which are not owned here. A second registration, or the
  /// end of one that is not there, is an assertion.
  /// @{
  void registerScheduler(TaskScheduler* scheduler);
  void unregisterScheduler(TaskScheduler* scheduler);
  /// @}
  /// Visits this scheduler and all groups of the tree, in no order. They stay as they are
  /// meanwhile.
  void forEachScheduler(std::function<void(TaskScheduler const& scheduler)> const& visit) const;
  /// A scheduler of that name in the tree, or null.
  /// @{
  std::shared_ptr<TaskScheduler> findSchedulerForTest(std::string const& name);
  std::shared_ptr<TaskScheduler const> findSchedulerForTest(std::string const& name) const;
  /// @}
  /// Live tasks of the tree; walks them all.
  std::uint64_t totalRegisteredTaskCount() const;
  std::uint32_t taskGroupCount() const;  ///< groups of the tree, nested ones included
  /// The sum over all schedulers of the tree.
  TaskSchedulerQueueStats queueStatsRoot() const;
  /// Notes the slip, and takes now as the time of the next request.
  void doUpdateSchedulerLatency();

  /// How many events the history holds at most; 100 at first, 0 for none. A change keeps
  /// the newest.
  /// @{
  unsigned historyEntryCount() const;
  void historyEntryCountIs(unsigned count);
  /// @}
  /// Drops all events.
  void clearHistory();
  /// The history's events for people, newest first. A descriptor must be blocking and stays open.
  /// @{
  void historyRenderTextForDebug(std::ostream& stream) const;
  void historyRenderTextForDebug(int fd) const;
  void historyRenderTextForDebugStdErr() const;
  std::string historyRenderTextForDebugToString() const;
  /// @}

  /// The tasks of the whole tree in one table for people, heaviest first, with a legend. A
  /// descriptor must be blocking and stays open.
  /// @{
  void statsRenderTextForDebug(std::ostream& stream, bool includeNeverRun, bool showTaskKey,
                               bool includeCompleted, bool includeHistory) const;
  void statsRenderTextForDebug(int fd, bool includeNeverRun, bool showTaskKey,
                               bool includeCompleted, bool includeHistory) const;
  std::string statsRenderTextForDebugToString(bool includeNeverRun, bool showTaskKey,
                                              bool includeCompleted, bool includeHistory) const;
  /// @}
  /// All tasks with their keys and the completed ones, without history.
  void statsRenderTextForDebugStdErr() const;

  /// The wheel of all timer tasks of the tree; its master timer is of `eventPriorityStrictHigh`.
  std::shared_ptr<TimerWheel> const& timerWheel() const { return timerWheel_; }

 private:
  friend class TaskScheduler;
  class LoopWaits;

  void runObserversChange();
  void followVirtualTime();
  void sanityCheckOtherThread(std::uint64_t thread, char const* function) const;

  std::set<TaskScheduler*> schedulers_;  // of the tree, this one included
  std::shared_ptr<Platform::CallbackControl> callbackControl_;
  std::shared_ptr<TimerWheel> timerWheel_;
  std::shared_ptr<std::function<bool(_TaskBase&)> const> taskExceptionHandler_;
  std::unique_ptr<Impl::RunObservation> const runObservation_;
  std::unique_ptr<LoopWaits> loopWaits_;  // while observers hear of them
  std::uint64_t threadId_;
  std::int32_t processId_;
  char threadName_[16] = {};
  bool threadSanityDisabled_ = false;
  bool suspended_ = false;
  bool virtualTime_ = false;
  bool isMainThread_;
  unsigned char taskTestYieldRatioRoot_ = 0;
  unsigned randomSeed_ = 0;  // fixed, so that the jitter of timers can be repeated
};

/// The calling thread's root, made at the thread's first call. After the thread's own objects have
/// gone, as in the destructor of a static one, each call makes a root that the caller alone owns.
BRELO_EXPORT std::shared_ptr<TaskSchedulerRoot> schedulerRootBrelo();

/// A new root at each call, owned by the caller alone.
BRELO_EXPORT std::shared_ptr<TaskSchedulerRoot> schedulerRootBreloNonShared(std::string name);

}  // namespace Brelo
