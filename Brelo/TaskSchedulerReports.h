#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "Brelo/Export.h"
#include "Brelo/Formatter.h"
#include "Brelo/TaskStat.h"

namespace Brelo {

class TaskGroup;
class TaskImpl;
class TaskScheduler;
class TaskSchedulerPrintContext;
class TaskSchedulerSnapshot;

/// What a scheduler says of itself and of all below it: a base of TaskScheduler, and of nothing
/// else.
class BRELO_EXPORT TaskSchedulerReports {
 public:
  /// Freezes the statistics of this scheduler and of all below it. An empty name stands for the
  /// scheduler's own; `displayOrder` is for the reader, `TaskSchedulerSnapshot::displayOrderUnset`
  /// for none. Of a root, `includeHistory` adds the ring of events.
  std::shared_ptr<TaskSchedulerSnapshot const> snapshot(std::string name, bool includeNeverRun,
                                                        bool includeCompleted, bool includeHistory,
                                                        unsigned displayOrder) const;
  /// A new JSON document on the caller's stream, which must outlive it, or on a blocking
  /// descriptor; 1 and 2 mean the standard streams.
  /// @{
  static std::shared_ptr<TaskSchedulerPrintContext> PrintContextIs(std::ostream& stream);
  static std::shared_ptr<TaskSchedulerPrintContext> PrintContextIs(int fd, bool closeFd);
  /// @}
  /// A whole JSON document of this scheduler and of all below it. A descriptor must be blocking
  /// and stays open.
  /// @{
  void statsRenderJson(std::ostream& stream, bool includeNeverRun, bool includeCompleted,
                       bool includeHistory) const;
  std::string statsRenderJsonToString(bool includeNeverRun, bool includeCompleted,
                                      bool includeHistory) const;
  void statsRenderJsonToBlockingFdForTest(int fd, bool includeNeverRun, bool includeCompleted,
                                          bool includeHistory) const;
  /// @}
  /// Streams snapshots as one JSON document, however slow the reader is, by two tasks of this
  /// scheduler. The descriptor is given up, unless the call throws: it becomes non-blocking and is
  /// closed at the end, after which `done` is called on the scheduler's thread. A reader that goes
  /// away, also with input unread, ends the export early and unreported; the process has to ignore
  /// SIGPIPE for that. Any other failure of a write is an assertion. An exception from a run, for
  /// want of memory, ends the export as well, `done` included, and goes on to the loop's entry. A
  /// reader that never reads keeps the export waiting for good.
  /// @{
  void snapshotRenderJsonAsync(int fd,
                               std::vector<std::shared_ptr<TaskSchedulerSnapshot const>> snapshots,
                               std::function<void()> done);
  void snapshotRenderJsonAsync(int fd,
                               std::vector<std::shared_ptr<TaskSchedulerSnapshot const>> snapshots);
  void snapshotRenderJsonAsync(int fd, std::shared_ptr<TaskSchedulerSnapshot const> snapshot);
  /// @}

  /// Append a record for each registered task, or for each stats name of ended tasks; those that
  /// never ran only if asked for. Return how many were left out.
  /// @{
  unsigned getTaskStats(std::vector<TaskStat>* out, bool includeNeverRun) const;
  unsigned getCompletedTaskStats(std::vector<TaskStat>* out, bool includeNeverRun) const;
  /// @}
  /// Visits the tasks that are registered here, newest first. None may come or go meanwhile. The
  /// visit returns whether to go on.
  void forEachTask(std::function<bool(TaskImpl const& task)> const& visit) const;
  /// Visits the groups whose parent tasks are registered here, newest first.
  void forEachTaskGroup(
      std::function<void(TaskImpl const& parentTask, TaskGroup const& group)> const& visit) const;
  /// The record of a name, or a default one.
  /// @{
  TaskStat taskStatForTest(std::string const& name) const;
  TaskStat completedTaskStatForTest(std::string const& name) const;
  /// @}

 protected:
  TaskSchedulerReports() = default;
  ~TaskSchedulerReports() = default;

 private:
  TaskScheduler& scheduler();
  TaskScheduler const& scheduler() const;
};

/// Write the scheduler's name and a colon. Not for null.
/// @{
BRELO_EXPORT std::ostream& operator<<(std::ostream& stream, TaskScheduler const* scheduler);
BRELO_EXPORT fmt::format_context::iterator formatValue(TaskScheduler const& scheduler,
                                                       fmt::format_context& context);
/// @}

}  // namespace Brelo

namespace fmt {

/// For schedulers of any class.
template <class AnyScheduler>
struct formatter<AnyScheduler,
                 std::enable_if_t<std::is_base_of_v<Brelo::TaskScheduler, AnyScheduler>, char>>
    : Brelo::Impl::Formatter<AnyScheduler> {};

}  // namespace fmt
