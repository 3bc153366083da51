#pragma once

#include <boost/circular_buffer_fwd.hpp>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "Brelo/ConstStringCache.h"
#include "Brelo/Export.h"
#include "Brelo/MemTrack.h"
#include "Brelo/TaskTimeDuration.h"

namespace Brelo {

class _TaskBase;
class TaskScheduler;

/// What happened. Types before `schedulerIdle` are a task's, the others a scheduler's.
enum class TaskSchedulerEventType : std::uint8_t {
  schedule,                           ///< asked for a run
  unschedule,                         ///< left its run queue unrun
  runStart,                           ///< begins a run
  runEnd,                             ///< has ended its run
  timerStart,                         ///< its timer was armed
  timerStop,                          ///< its timer was disarmed
  suspendOn,                          ///< was suspended
  suspendOff,                         ///< was resumed
  scheduleWhileSuspended,             ///< asked for a run, and was suspended: dropped
  forceYieldOn,                       ///< was given a yield ratio
  forceYieldOff,                      ///< lost its yield ratio
  idle,                               ///< no run is coming
  busy,                               ///< a run is coming
  create,                             ///< registered
  destroy,                            ///< unregistered
  fdReadable,                         ///< its descriptor is readable
  fdWritable,                         ///< its descriptor is writable
  schedulerIdle,                      ///< nothing is runnable
  schedulerRunnable,                  ///< something is
  schedulerSuspended,                 ///< stopped
  schedulerUnsuspended,               ///< resumed
  schedulerRunIgnoredWhileSuspended,  ///< a run came while stopped
  schedulerVirtualTimeOn,             ///< quanta are measured by the host's time
  schedulerVirtualTimeOff,            ///< quanta are measured by the steady clock
  schedulerTestYieldRatioOn,          ///< all tasks were given a yield ratio
  schedulerTestYieldRatioOff,         ///< they lost it
};

/// Writes the bare number.
BRELO_EXPORT std::ostream& operator<<(std::ostream& stream, TaskSchedulerEventType type);

/// The flight recorder of one scheduler tree: a ring of the latest events, newest first, and the
/// cache of the tree's names, so that an event can name a task that has since gone.
///
/// Belongs to the tree's thread. Recording allocates nothing, copies no string, touches none and
/// reads no clock: the caller gives the steady-clock time that it has at hand. The events of the
/// ring do not count on their strings: a task or scheduler that ends hands its own over
/// (`nameEnded`), and it is kept until its last event has made room. A copy of an event counts.
class BRELO_EXPORT TaskSchedulerHistory {
 public:
  /// What happened to whom, and when. A plain value, but for the name's reference into the cache.
  class Event {
   public:
    /// The type must be one of a task, or of a scheduler: anything else is an assertion.
    /// @{
    Event(TaskTimePoint const& time, TaskSchedulerEventType type, _TaskBase const& task);
    Event(TaskTimePoint const& time, TaskSchedulerEventType type, TaskScheduler const& scheduler);
    /// @}

    TaskSchedulerEventType eventType() const { return eventType_; }  ///< what happened
    TaskTimePoint eventTime() const { return eventTime_; }  ///< when, as the caller gave it
    /// The priority's letter, a blank and the task's name; or the scheduler's name.
    ConstStringRef const& eventId() const { return eventId_; }

    std::string eventTypeDisplay() const;  ///< the type's display name
    /// The type's display name in twelve columns, a blank and the subject.
    std::string display() const;

   private:
    friend class TaskSchedulerHistory;
    Event(TaskTimePoint const& time, TaskSchedulerEventType type, ConstStringRef id)
        : eventType_(type), eventTime_(time), eventId_(std::move(id)) {}

    TaskSchedulerEventType eventType_;
    TaskTimePoint eventTime_;
    ConstStringRef eventId_;
  };
  /// Its capacity is the number of events kept. Who walks it includes <boost/circular_buffer.hpp>.
  using Ring = boost::circular_buffer<Event, Allocator<Event>>;

  /// Zero for a ring that records nothing.
  explicit TaskSchedulerHistory(unsigned capacity);
  ~TaskSchedulerHistory();

  /// Records an event; the oldest one makes room.
  /// @{
  void insert(TaskTimePoint const& time, TaskSchedulerEventType type, _TaskBase const& task);
  void insert(TaskTimePoint const& time, TaskSchedulerEventType type,
              TaskScheduler const& scheduler);
  /// @}
  /// The same for a subject of this tree, which has that name, and a type that is right for it.
  void insertOwn(TaskTimePoint const& time, TaskSchedulerEventType type, ConstStringRef const& id);
  /// When the latest event was recorded, also if the ring keeps none: the time of the present step,
  /// for what follows from an event at once.
  TaskTimePoint const& latestTime() const { return latestTime_; }
  /// For who ends: takes over the string that its events carry. No more of them will come.
  void nameEnded(ConstStringRef name) noexcept;

  /// The names of the whole tree.
  ConstStringCache& stringCache() { return stringCache_; }
  /// Element 0 is the newest.
  Ring const& events() const { return *events_; }
  /// How many events are kept; a change keeps the newest, or throws std::bad_alloc with nothing
  /// changed.
  /// @{
  unsigned capacity() const;
  void capacityIs(unsigned capacity);
  /// @}
  /// How many events there have been, dropped ones included. The newest one has this number.
  std::uint64_t recorded() const { return recorded_; }
  /// Drops all events.
  void clear();
  /// The events for people, newest first, with the age of each against the newest; flushes after
  /// each line.
  void renderText(std::ostream& stream) const;

 private:
  void record(TaskTimePoint const& time, TaskSchedulerEventType type, ConstStringRef id);
  void releaseOverwritten() noexcept;

  ConstStringCache stringCache_;
  ConstStringKeeper endedNames_;  // by `recorded_`
  std::unique_ptr<Ring> events_;
  std::uint64_t recorded_ = 0;  // events ever
  TaskTimePoint latestTime_;
};

}  // namespace Brelo
