#pragma once

#include <boost/circular_buffer.hpp>
#include <cstdint>
#include <ostream>
#include <string>

#include "Brelo/ConstStringCache.h"
#include "Brelo/MemTrack.h"
#include "Brelo/TaskTimeDuration.h"

namespace Brelo {

class _TaskBase;
class TaskScheduler;

/// What happened. Types before `schedulerIdle` are a task's, the others a scheduler's; what each
/// one means is told by its display name.
enum class TaskSchedulerEventType : std::uint8_t {
  schedule,
  unschedule,
  runStart,
  runEnd,
  timerStart,
  timerStop,
  suspendOn,
  suspendOff,
  scheduleWhileSuspended,
  forceYieldOn,
  forceYieldOff,
  idle,
  busy,
  create,
  destroy,
  fdReadable,
  fdWritable,
  schedulerIdle,
  schedulerRunnable,
  schedulerSuspended,
  schedulerUnsuspended,
  schedulerRunIgnoredWhileSuspended,
  schedulerVirtualTimeOn,
  schedulerVirtualTimeOff,
  schedulerTestYieldRatioOn,
  schedulerTestYieldRatioOff,
};

/// Writes the bare number.
std::ostream& operator<<(std::ostream& stream, TaskSchedulerEventType type);

/// The flight recorder of one scheduler tree: a ring of the latest events, newest first, and the
/// cache of the tree's names, so that an event can name a task that has since gone.
///
/// Belongs to the tree's thread. Recording allocates nothing, copies no string and reads no
/// clock: the caller gives the steady-clock time that it has at hand.
class TaskSchedulerHistory {
 public:
  class Event {
   public:
    /// The type must be one of a task, or of a scheduler: anything else is an assertion.
    Event(TaskTimePoint const& time, TaskSchedulerEventType type, _TaskBase const& task);
    Event(TaskTimePoint const& time, TaskSchedulerEventType type, TaskScheduler const& scheduler);

    TaskSchedulerEventType eventType() const { return eventType_; }
    TaskTimePoint eventTime() const { return eventTime_; }
    /// The priority's letter, a blank and the task's name; or the scheduler's name.
    ConstStringRef const& eventId() const { return eventId_; }

    std::string eventTypeDisplay() const;
    /// The type's display name in twelve columns, a blank and the subject.
    std::string display() const;

   private:
    TaskSchedulerEventType eventType_;
    TaskTimePoint eventTime_;
    ConstStringRef eventId_;
  };
  using Ring = boost::circular_buffer<Event, Allocator<Event>>;

  /// Zero for a ring that records nothing.
  explicit TaskSchedulerHistory(unsigned capacity);

  void insert(TaskTimePoint const& time, TaskSchedulerEventType type, _TaskBase const& task) {
    events_.push_front(Event(time, type, task));
  }
  void insert(TaskTimePoint const& time, TaskSchedulerEventType type,
              TaskScheduler const& scheduler) {
    events_.push_front(Event(time, type, scheduler));
  }

  ConstStringCache& stringCache() { return stringCache_; }
  /// Element 0 is the newest.
  Ring const& events() const { return events_; }
  unsigned capacity() const { return static_cast<unsigned>(events_.capacity()); }
  /// Keeps the newest events. Throws std::bad_alloc with nothing changed.
  void capacityIs(unsigned capacity);
  /// Drops all events.
  void clear() { events_.clear(); }
  /// The events for people, newest first, with the age of each against the newest; flushes after
  /// each line.
  void renderText(std::ostream& stream) const;

 private:
  ConstStringCache stringCache_;
  Ring events_;
};

}  // namespace Brelo
