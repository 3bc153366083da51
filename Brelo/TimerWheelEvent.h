#pragma once

#include <timeout.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Brelo/Export.h"

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

}  // namespace Brelo
