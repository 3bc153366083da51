#pragma once

#include <timeout.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "Brelo/Export.h"
#include "Brelo/Platform.h"
#include "Brelo/TimerWheelEvent.h"
#include "Zel/AllocTrack.h"

namespace Brelo {

/// Any number of timers on one timer of the platform.
///
/// Timers never fire before their exact time, and fire in the order of their exact times.
/// Starting and stopping one that is not the first takes constant time and touches neither the
/// heap nor the event loop. Held through shared pointers; belongs to the thread of its master
/// timer, which runs on that thread's backend. A handler may let go of the last pointer. An
/// exception of a timer's handler leaves the loop; the timers behind it stay, and wake again when
/// one is started that becomes the first. Where memory runs out, `std::bad_alloc` leaves the loop,
/// and the timers that are due wake at the next entry.
class BRELO_EXPORT TimerWheel : Platform::TimeoutHandler,
                                public std::enable_shared_from_this<TimerWheel> {
 public:
  /// With a master timer of that priority on the calling thread's backend.
  explicit TimerWheel(Platform::EventPriority priority);
  TimerWheel(TimerWheel const&) = delete;
  TimerWheel& operator=(TimerWheel const&) = delete;
  /// No timer may be on it.
  ~TimerWheel() override;

  /// What `TimerWheelEvent::setTimeout` and `delTimeout` stand for.
  /// @{
  void timerStart(TimerWheelEvent* event, double seconds);
  void timerStart(TimerWheelEvent* event, double seconds,
                  double now);  ///< for who has asked `time()`
  void timerStop(TimerWheelEvent* event);
  /// @}
  /// When the wheel wakes next, on the clock of `Brelo::time()`: for its first timer, or up to a
  /// tick before it, or for one that has been stopped meanwhile. Positive infinity for never.
  double wakeTime() const { return masterTimerExpiry_; }

 private:
  /// The timers of one exact expiry, in the order in which the wheel released them. Shares the
  /// links of the wheel library, which are free by then.
  class TimersAtTimeout : timeout_list {
   public:
    TimersAtTimeout();
    TimersAtTimeout(TimersAtTimeout const&) = delete;
    TimersAtTimeout& operator=(TimersAtTimeout const&) = delete;
    ~TimersAtTimeout();

    struct timeout* first() const {
      return tqh_first;
    }
    void pushBack(struct timeout* link);
    void unlink(struct timeout* link);
    void checkLinked(struct timeout const* link) const;
    static void unlinkFromOwn(struct timeout* link);
  };

  /// A timer on its way from the wheel to the map, in the order of expiry and release.
  struct Released {
    double expiry;
    std::size_t order;
    TimerWheelEvent* event;

    bool operator<(Released const& other) const {
      return expiry != other.expiry ? expiry < other.expiry : order < other.order;
    }
  };

  void timeout() override;
  void timerPending(Platform::PendingList& list, double remaining) const override;
  void drainWheel();
  void putBack(std::size_t first);
  void setCurrentTime(double now);
  void setMasterTimer();
  double firstExpiryTime() const;
  void timersExpiryingSoonRemove(TimerWheelEvent* event);
  void timerExpired(TimerWheelEvent* event);

  int openError_ = 0;
  double masterTimerExpiry_;
  std::shared_ptr<Platform::TimerControl> masterTimer_;
  timeouts* wheel_;
  std::map<double, TimersAtTimeout, std::less<double>,
           Zel::AllocTrackAllocator<std::pair<double const, TimersAtTimeout>>>
      timersExpiryingSoon;
  std::vector<Released> released_;  // empty between passes, but for its memory
};

/// The shared wheel: the thread's own where singletons are thread-local, else the process's.
BRELO_EXPORT std::shared_ptr<TimerWheel> getTimerWheel();

/// A new wheel, whose master timer has that priority.
BRELO_EXPORT std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(
    Platform::EventPriority priority);

namespace Platform {

/// A timer on a wheel, of which none is an assertion. Its owner stops it before letting go of it.
/// What the handler throws comes out of the loop's entry; `handleTimeoutException` is not asked.
BRELO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                           std::shared_ptr<TimerWheel> wheel);

}  // namespace Platform

}  // namespace Brelo
