#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Brelo/Export.h"
#include "Brelo/TaskPriority.h"
#include "BreloObserve/Histogram.h"

namespace Brelo {
class TaskSchedulerRoot;
}

namespace BreloObserve {

namespace Impl {
class RunAccounts;
}

/// What a monitor may take.
struct MonitorOptions {
  /// Names that have figures of their own; those of all others are summed up under "(other)". At
  /// most 1,000,000; each takes about 2 kB.
  std::size_t namesMax = 500;
};

/// What a document of a monitor is to have.
struct MonitorRequest {
  std::size_t top = 0;         ///< so many names, the others as one sum; 0 for all
  std::string sort = "run_s";  ///< by this column, the largest first, or in the alphabet
  bool histograms = false;     ///< with the histograms themselves
  std::string group = {};      ///< only the names of this group; empty for all
};

/// The figures of all tasks of one stats name in one group, live and ended ones.
struct NameFigures {
  std::string group;        ///< the scheduler that the tasks belong to
  std::string name;         ///< the tasks' stats name
  std::string parentGroup;  ///< the scheduler above the group; empty for the root's own
  bool isGroup = false;     ///< of a group's parent task: its runs are the group's slices
  Brelo::TaskPriority priority = Brelo::TaskPriority::normal;  ///< of the latest task

  // As of now.
  std::uint64_t tasks = 0;     ///< live ones
  std::uint64_t runnable = 0;  ///< queued ones
  std::uint64_t pending = 0;   ///< the sum of what the tasks last reported

  // Of the window.
  Histogram run;                    ///< time used in each run
  Histogram wait;                   ///< time from the queue to the run
  std::chrono::nanoseconds used{};  ///< in the window, also by runs that have not ended
  std::uint64_t work = 0;           ///< reported by the tasks in their runs
  std::uint64_t violations200 = 0;  ///< runs of at least two and less than five quanta
  std::uint64_t violations500 = 0;  ///< runs of at least five quanta
};

/// The figures of a root's loop in the window.
struct LoopFigures {
  double cleared = 0;                  ///< when the window began, on the clock of `Brelo::time()`
  std::chrono::nanoseconds length{};   ///< of the window up to now
  std::chrono::nanoseconds running{};  ///< used by the root's runs, also by one that has not ended
  std::chrono::nanoseconds waiting{};  ///< the loop has waited
  std::chrono::nanoseconds polling{};  ///< the rest
  std::chrono::nanoseconds threadCpu{};  ///< CPU time of the thread
  std::uint64_t clearings = 0;           ///< of all that the monitor counts, since it was made
  std::uint64_t looks = 0;               ///< of the root for a task
  std::uint64_t waits = 0;               ///< of the loop
  std::uint64_t runsLost = 0;            ///< runs for whose figures there was no memory
  Histogram slip;                        ///< how long after the root asked for it each look came
};

/// Counts what the tasks of a root do: by stats name and group how long they run and wait, how much
/// they work and how often they go beyond their quanta, and by what the loop's time is taken.
///
/// The figures are those of a window, which begins when the monitor is made or cleared, which it
/// also is with the root's statistics. A run belongs to the window in which it ends; of its time
/// only what lies in the window counts as used. Holds the root; belongs to its thread, and may come
/// and go amid a run. Costs about 20 ns a run, and takes memory at the first run of a name and at
/// the first of a length; where that fails a run is counted under "(other)", or as lost.
class BRELO_EXPORT Monitor {
 public:
  /// Counts from here on.
  explicit Monitor(std::shared_ptr<Brelo::TaskSchedulerRoot> root, MonitorOptions options = {});
  Monitor(Monitor const&) = delete;
  Monitor& operator=(Monitor const&) = delete;
  ~Monitor();

  /// Begins a new window. Names that have not run in the old one are forgotten until they run or a
  /// live task has them.
  void clear();

  /// All of it as JSON: the document "monitor" of doc/observe/protocol.md. Looks at every live
  /// task, for at most half of the root's quantum. An unknown column is an assertion.
  std::string document(MonitorRequest const& request = {}) const;
  /// The columns by which a document can be sorted, and whether there is one of that name.
  /// @{
  static std::vector<std::string_view> columns();
  static bool isColumn(std::string_view name);
  /// @}

  /// The figures as values, in no order; a copy of all histograms. Looks at every live task.
  std::vector<NameFigures> names() const;
  LoopFigures loop() const;  ///< as of now

 private:
  std::unique_ptr<Impl::RunAccounts> accounts_;
};

}  // namespace BreloObserve
