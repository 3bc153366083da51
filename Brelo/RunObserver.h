#pragma once

#include <cstdint>

#include "Brelo/Export.h"
#include "Brelo/TaskTimeDuration.h"

namespace Brelo {

namespace Impl {
struct RunObservation;
}

class TaskImpl;
class TaskScheduler;

/// Who is told of each run in a root's tree, and of the loop's waits; see
/// `TaskSchedulerRoot::runObserverAdd`.
///
/// All calls come on the root's thread, amid its work: they have to be short, and may neither run,
/// make or end tasks nor add or remove observers.
class BRELO_EXPORT RunObserver {
 public:
  /// A run, in a record that stays where it is from its start to its end.
  struct Run {
    TaskImpl const& task;   ///< what runs; of a group's slice its parent task
    Run const* outer;       ///< the observed run that this one is inside of, or null
    TaskTimePoint request;  ///< when the task was queued; the start for one that was not
    TaskTimePoint start;    ///< of the run
    /// By how much the scheduler's look that found the task was late, or negative for a run that no
    /// look was needed for.
    TaskTimeDuration slip;
    TaskTimePoint end;  ///< set at the end, as the next two
    /// The length, or under virtual time what that has moved by.
    TaskTimeDuration used;
    bool threw;                     ///< an exception has left the run
    std::uint64_t workCountBefore;  ///< `taskWorkCountTotal` at the start
  };

  /// What an observer hears of, as bits; all hear that figures have been zeroed. What no observer
  /// hears of is not measured. Waits cost libevent, which does not say how long it waits, one more
  /// look at the descriptors before each.
  enum Hears : unsigned {
    starts = 1,
    ends = 2,
    emptyLooks = 4,
    waits = 8,
    everything = starts | ends | emptyLooks | waits,
    markChanges = 16,  ///< and the root keeps its RunMark up; a hundredth of a pass
  };

  RunObserver(RunObserver const&) = delete;
  RunObserver& operator=(RunObserver const&) = delete;

  /// A run starts; `end` and what follows it are not set yet.
  virtual void runStarts(Run const& run) noexcept;
  /// It has ended, and its task is still there. The first end may be that of a run amid which the
  /// observer was added.
  virtual void runEnds(Run const& run) noexcept;
  /// A scheduler of the tree has looked for a task, `slip` after it asked for that, and found none,
  /// or may run none. Of a look that finds one the run tells.
  virtual void emptyLook(TaskScheduler const& scheduler, TaskTimeDuration slip) noexcept;
  /// The thread's loop has waited, or the host's virtual time has skipped, for so long. A look at
  /// the descriptors that does not wait is not told.
  virtual void loopWaited(TaskTimeDuration length) noexcept;
  /// The innermost run has changed, as somebody wanted to know by `RunMark::tellNextChange()`.
  virtual void runMarkChanged() noexcept;
  /// The figures of that scheduler have been zeroed, at once or in the background.
  virtual void statsCleared(TaskScheduler const& scheduler) noexcept;

 protected:
  /// Of nothing yet.
  explicit RunObserver(unsigned hears = everything) : hears_(hears) {}
  virtual ~RunObserver();

 private:
  friend struct Impl::RunObservation;
  friend class TaskSchedulerRoot;
  RunObserver* next_ = nullptr;
  unsigned hears_;
};

}  // namespace Brelo
