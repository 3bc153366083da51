#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Brelo/Export.h"
#include "Brelo/TaskSchedulerHistory.h"
#include "Brelo/TaskSchedulerPrintContext.h"
#include "Brelo/TaskSchedulerQueueStats.h"
#include "Brelo/TaskStat.h"

namespace Brelo {

class TaskScheduler;

/// A frozen copy of the statistics of one scheduler and of all schedulers below it, to be rendered
/// at leisure. Made by `TaskScheduler::snapshot()`.
///
/// Nothing in it points at a task or a scheduler; its names are references into the tree's
/// string cache, so it must go before the tree does, and on the thread that made it: another
/// thread is an assertion, unless the root's thread check was off.
class BRELO_EXPORT TaskSchedulerSnapshot {
 public:
  static constexpr unsigned displayOrderUnset = 0xFFFFFFFF;  ///< none in the document

  /// The ring of events as it was.
  struct History {
    /// A copy of the ring.
    explicit History(TaskSchedulerHistory const& ring);

    /// Writes the key "history" and its object.
    void renderJson(TaskSchedulerPrintContext& context) const;
    /// Writes the events for people; see `TaskSchedulerHistory::renderText`.
    void renderText(std::ostream& stream) const;

    std::uint32_t historyEntryCount;                   ///< the ring's capacity
    std::vector<TaskSchedulerHistory::Event> events_;  ///< newest first
  };

  /// What `TaskScheduler::snapshot()` makes. An empty name stands for the scheduler's own. History
  /// is copied on a root only.
  TaskSchedulerSnapshot(TaskScheduler const* scheduler, std::string name, bool includeNeverRun,
                        bool includeCompleted, bool includeHistory, unsigned displayOrder,
                        bool threadSanityDisabled);
  /// Of that scheduler alone, without those below it, under its own name.
  static TaskSchedulerSnapshot alone(TaskScheduler const& scheduler, bool includeNeverRun,
                                     bool includeCompleted, bool includeHistory);
  /// For the vector of those below.
  TaskSchedulerSnapshot(TaskSchedulerSnapshot&&) = default;
  ~TaskSchedulerSnapshot();

  /// Adds one member to the document: the snapshot's name with the scheduler object.
  void renderJson(TaskSchedulerPrintContext& context) const;
  /// Writes the scheduler object alone.
  void renderJsonImpl(TaskSchedulerPrintContext& context) const;
  /// Writes the key and the task list object, heaviest tasks first.
  static void renderJsonTasks(TaskSchedulerPrintContext& context,
                              std::vector<TaskStat> const& tasks, std::string const& key,
                              unsigned skipped, bool completed);

  /// The figures as they were; of `TaskScheduler` and its operations of these names.
  /// @{
  std::string const& schedulerName() const { return schedulerName_; }
  TaskSchedulerQueueStats const& queueStats() const { return queueStats_; }
  TaskTimeDuration maxSchedulerSlip() const { return maxSchedulerSlip_; }
  /// @}
  /// As given.
  unsigned displayOrder() const { return displayOrder_; }
  bool isRootScheduler() const { return isRootScheduler_; }  ///< and not a group
  /// The records of live tasks, and of ended ones by stats name; how many that never ran are
  /// left out of each.
  /// @{
  unsigned skippedTasks() const { return skippedTasks_; }
  unsigned skippedCompletedTasks() const { return skippedCompletedTasks_; }
  std::vector<TaskStat> const& tasks() const { return tasks_; }
  std::vector<TaskStat> const& completedTasks() const { return completedTasks_; }
  /// @}
  /// One for each group, with its key in the document.
  std::vector<std::pair<std::string, TaskSchedulerSnapshot>> const& subSchedulers() const {
    return subSchedulers_;
  }
  /// Null unless asked for, and on a root.
  std::shared_ptr<History const> const& history() const { return history_; }

 private:
  struct Alone {};
  TaskSchedulerSnapshot(Alone, TaskScheduler const& scheduler, std::string name,
                        bool includeNeverRun, bool includeCompleted, bool includeHistory,
                        unsigned displayOrder, bool threadSanityDisabled);

  std::string schedulerName_;
  TaskSchedulerQueueStats queueStats_;
  TaskTimeDuration maxSchedulerSlip_;
  bool isRootScheduler_;
  bool threadSanityDisabled_;
  unsigned displayOrder_;
  unsigned skippedTasks_ = 0;
  unsigned skippedCompletedTasks_ = 0;
  std::vector<TaskStat> tasks_;
  std::vector<TaskStat> completedTasks_;
  std::vector<std::pair<std::string, TaskSchedulerSnapshot>> subSchedulers_;
  std::shared_ptr<History const> history_;
  std::thread::id creatorThread_;
};

}  // namespace Brelo
