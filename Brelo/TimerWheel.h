#pragma once

#include <timeout.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Brelo/Export.h"
#include "Brelo/Platform.h"
#include "Zel/AllocTrack.h"

namespace Brelo {

class TimerWheel;

/// Where a timer is.
enum class TimerWheelState : std::uint8_t {
  notLinked = 0,              ///< is stopped, or on its way between the other two
  inTimerWheel = 1,           ///< waits for its tick
  inTimersExpiryingSoon = 2,  ///< its tick has come, its exact time perhaps not
};

/// The name of the state, "unknownState" for anything else.
BRELO_EXPORT std::string timerWheelStateToString(TimerWheelState state);

/// Whatever can sit on a wheel: a one-shot timer with an exact expiry.
///
/// Its owner stops it before it ends: destroying a running one is an assertion. It belongs to the
/// wheel's thread and is on one wheel at a time, which each operation is given.
class BRELO_EXPORT TimerWheelEvent {
 public:
  /// Stopped.
  TimerWheelEvent();
  TimerWheelEvent(TimerWheelEvent const&) = delete;
  TimerWheelEvent& operator=(TimerWheelEvent const&) = delete;

  /// The expiry. The timer counts as stopped already, and may be started again from here.
  virtual void timeout() = 0;
  virtual ~TimerWheelEvent();

  /// Starts the timer, or moves it. Positive infinity stops it; not-a-number is an assertion;
  /// zero or less fires at the next pass of the loop.
  void setTimeout(std::shared_ptr<TimerWheel> const& wheel, double seconds);
  /// What `Platform::pendingRender` calls it: its type, unless overridden.
  virtual std::string timerName() const;
  /// Stops the timer; harmless on a stopped one.
  void delTimeout(std::shared_ptr<TimerWheel> const& wheel);
  /// Seconds to the expiry, 0.0 if it has passed, positive infinity for a timer that is stopped.
  double remainingTimeout() const;
  /// The absolute expiry on the clock of `Brelo::time()`; positive infinity when stopped.
  double expirationTime() const { return expirationTime_; }

  /// Has the processor fetch the timer, for who will start or stop it after something else: one
  /// among a million timers is in no cache.
  void prefetch() const { __builtin_prefetch(&timeoutLink_), __builtin_prefetch(&expirationTime_); }

  /// Where the timer is; `notLinked` for a stopped one.
  TimerWheelState state() const;
  /// For the wheel. Every move between the two other states goes through `notLinked`: another is an
  /// assertion.
  void stateIs(TimerWheelState state);

 private:
  friend class TimerWheel;

  static TimerWheelEvent* timeoutLink2TimerWheelEvent(struct timeout* link);
  static TimerWheelEvent const* timeoutLink2TimerWheelEvent(struct timeout const* link);

  // Its `flags` hold the state, in bits that the wheel library leaves to its clients.
  struct timeout timeoutLink_;
  double expirationTime_;
};

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
