#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>

#include "Brelo/ConstStringCache.h"
#include "Brelo/Export.h"
#include "Brelo/Formatter.h"
#include "Brelo/TaskPriority.h"
#include "Brelo/TaskTimeDuration.h"

namespace Brelo {

class TaskScheduler;
enum class TaskSchedulerEventType : std::uint8_t;

/// The root of all tasks: names, a priority and the scheduler that the task belongs to.
///
/// A task is owned through shared pointers and keeps its scheduler alive. It belongs to its
/// scheduler's thread, construction and destruction included. Wrong use is an assertion.
class BRELO_EXPORT _TaskBase : public std::enable_shared_from_this<_TaskBase> {
 public:
  _TaskBase(_TaskBase const&) = delete;
  _TaskBase& operator=(_TaskBase const&) = delete;

  /// The name under which the task's figures are kept after it has ended; the task's own name
  /// until it is set.
  virtual void taskStatsNameIs(std::string name) = 0;
  /// A run is coming.
  virtual bool taskScheduled() const = 0;
  /// The task should return from its run soon. Cheap enough for an inner loop; to be asked
  /// during a run, or before the first one.
  virtual bool taskShouldYield() const = 0;
  /// Reports `count` units of work done, for the statistics.
  virtual void taskWorkCountInc(unsigned long count) = 0;
  /// Reports how many units of work are waiting, for the statistics.
  virtual void taskWorkPendingIs(unsigned pending) = 0;
  /// A hook: the task went idle or busy. Busy means that `taskScheduled()` held when it was last
  /// looked at: after a run, and after each operation that schedules or unschedules.
  virtual void handleTaskBusy() {}
  /// A hook: the task's counters have just been zeroed. It may neither destroy the task nor
  /// reset the scheduler's statistics.
  virtual void handleResetStats() {}
  virtual ~_TaskBase();

  /// The names, as strings and as references.
  /// @{
  std::string const& taskName() const { return taskName_.string(); }
  std::string const& taskStatsName() const { return taskStatsName_.string(); }
  ConstStringRef const& taskNameRef() const { return taskName_; }
  ConstStringRef const& taskStatsNameRef() const { return taskStatsName_; }
  /// @}
  /// What the task's history events carry: the priority's letter, a blank and the name.
  ConstStringRef const& taskHistoryName() const { return taskHistoryName_; }
  TaskPriority taskPriority() const { return taskPriority_; }  ///< never changes
  bool taskBusy() const { return taskBusy_; }                  ///< see `handleTaskBusy`
  /// Never null, never changes.
  std::shared_ptr<TaskScheduler> const& taskScheduler() const { return taskScheduler_; }

  /// For the library: records a change at that time and calls `handleTaskBusy()`.
  void taskBusyIs(bool busy, TaskTimePoint const& time);
  /// Records an event of this task in its scheduler's history.
  void taskHistoryInsert(TaskTimePoint const& time, TaskSchedulerEventType const& type) const;

 protected:
  /// Makes a task that its scheduler does not know of. A null scheduler is an assertion.
  _TaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
            std::string const& name);

  /// The scheduler's shared pointer, null for null; raises `std::bad_weak_ptr` if nothing owns
  /// the scheduler.
  static std::shared_ptr<TaskScheduler> sharedScheduler(TaskScheduler* scheduler);

  /// What the functions of these names give; for derived classes to read.
  /// @{
  std::shared_ptr<TaskScheduler> taskScheduler_;
  ConstStringRef taskHistoryName_;
  TaskPriority taskPriority_;
  std::uint8_t taskTestYieldRatio_ = 0;
  std::uint8_t taskTestYieldRatioEffective_ = 0;
  mutable std::uint8_t taskTestYieldCount_ = 0;
  bool taskBusy_ = false;
  ConstStringRef taskName_;
  ConstStringRef taskStatsName_;
  /// @}
};

/// Write "scheduler:priority:name@address". Not for null.
/// @{
BRELO_EXPORT std::ostream& operator<<(std::ostream& stream, _TaskBase const* task);
BRELO_EXPORT fmt::format_context::iterator formatValue(_TaskBase const& task,
                                                       fmt::format_context& context);
/// @}

}  // namespace Brelo

namespace fmt {

/// For tasks of any class.
template <class AnyTask>
struct formatter<AnyTask, std::enable_if_t<std::is_base_of_v<Brelo::_TaskBase, AnyTask>, char>>
    : Brelo::Impl::Formatter<AnyTask> {};

}  // namespace fmt
