// One timer of a wheel, and the control that gives it to a plain client.

#include <boost/core/demangle.hpp>
#include <boost/intrusive/parent_from_member.hpp>
#include <limits>
#include <typeinfo>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/MemTrack.h"
#include "Brelo/TimerWheel.h"

namespace Brelo {

namespace {

constexpr double never = std::numeric_limits<double>::infinity();

constexpr char const* stateNames[] = {"notLinked", "inTimerWheel", "inTimersExpiryingSoon"};

// Each state has a bit of a timer's flags, from this one on.
constexpr unsigned firstStateBit = 2;
constexpr int stateMask = 0x1c;
constexpr int notLinkedFlag = 1 << firstStateBit;
static_assert(stateMask == ((1 << std::size(stateNames)) - 1) << firstStateBit);

int stateToTimeoutFlags(TimerWheelState state) {
  auto const index = static_cast<unsigned>(state);
  if (index >= std::size(stateNames)) BRELO_FAIL("TimerWheelEvent", "invalid state {}", index);
  return notLinkedFlag << index;
}

/// The one that is set.
int stateFlag(int flags) {
  int const bits = flags & stateMask;
  if (bits == 0 || (bits & (bits - 1)) != 0) {
    BRELO_FAIL("TimerWheelEvent", "None or multiple of our flags set {}", flags);
  }
  return bits;
}

TimerWheelState timeoutFlagsToState(int flags) {
  auto const index = static_cast<unsigned>(__builtin_ctz(stateFlag(flags))) - firstStateBit;
  if (index >= std::size(stateNames)) {
    BRELO_FAIL("TimerWheelEvent", "Invalid flag combination {}", flags);
  }
  return static_cast<TimerWheelState>(index);
}

/// From one of the two states in which a timer is linked to another: the same is no change.
[[gnu::cold, gnu::noinline]] void linkedStateIs(int flags, TimerWheelState state) {
  TimerWheelState const current = timeoutFlagsToState(flags);
  if (state == current) return;
  BRELO_FAIL("TimerWheelEvent", "State change {} -> {} must go via {}",
             timerWheelStateToString(current), timerWheelStateToString(state),
             timerWheelStateToString(TimerWheelState::notLinked));
}

}  // namespace

std::string timerWheelStateToString(TimerWheelState state) {
  auto const index = static_cast<unsigned>(state);
  return index < std::size(stateNames) ? stateNames[index] : "unknownState";
}

TimerWheelEvent::TimerWheelEvent() : expirationTime_(never) {
  timeout_init(&timeoutLink_, TIMEOUT_ABS | stateToTimeoutFlags(TimerWheelState::notLinked));
}

TimerWheelEvent::~TimerWheelEvent() {
  if (state() != TimerWheelState::notLinked) {
    BRELO_FAIL("TimerWheelEvent", "TimerWheelEvent {} destroyed while {}", DisplayPointer(this),
               timerWheelStateToString(state()));
  }
}

TimerWheelEvent* TimerWheelEvent::timeoutLink2TimerWheelEvent(struct timeout* link) {
  return boost::intrusive::get_parent_from_member(link, &TimerWheelEvent::timeoutLink_);
}

TimerWheelEvent const* TimerWheelEvent::timeoutLink2TimerWheelEvent(struct timeout const* link) {
  return boost::intrusive::get_parent_from_member(link, &TimerWheelEvent::timeoutLink_);
}

std::string TimerWheelEvent::timerName() const {
  return boost::core::demangle(typeid(*this).name());
}

void TimerWheelEvent::setTimeout(std::shared_ptr<TimerWheel> const& wheel, double seconds) {
  wheel->timerStart(this, seconds);
}

void TimerWheelEvent::delTimeout(std::shared_ptr<TimerWheel> const& wheel) {
  wheel->timerStop(this);
}

double TimerWheelEvent::remainingTimeout() const {
  if (expirationTime_ == never) return never;
  double const rest = expirationTime_ - time();
  return rest > 0 ? rest : 0.0;
}

TimerWheelState TimerWheelEvent::state() const {
  return timeoutFlagsToState(timeoutLink_.flags);
}

void TimerWheelEvent::stateIs(TimerWheelState state) {
  int const flags = timeoutLink_.flags;
  if (stateFlag(flags) != notLinkedFlag && state != TimerWheelState::notLinked) {
    return linkedStateIs(flags, state);
  }
  timeoutLink_.flags = (flags & ~stateMask) | stateToTimeoutFlags(state);
}

namespace Platform {

namespace {

class TimerWheelTimerControl : public TimerControl, TimerWheelEvent {
 public:
  TimerWheelTimerControl(TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel)
      : TimerControl(handler), timerWheel_(std::move(wheel)) {
    if (timerWheel_ == nullptr) BRELO_FAIL("TimerWheelTimerControl", "Need a TimerWheel");
  }

  void setTimeout(double seconds) override { TimerWheelEvent::setTimeout(timerWheel_, seconds); }
  void delTimeout() override { TimerWheelEvent::delTimeout(timerWheel_); }
  double remainingTimeout() const override { return TimerWheelEvent::remainingTimeout(); }

 private:
  void timeout() override { handler_->timeout(); }
  std::string timerName() const override { return handler_->handlerName(); }

  std::shared_ptr<TimerWheel> timerWheel_;
};

}  // namespace

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TimerWheel> wheel) {
  return makeTracked<TimerWheelTimerControl>(handler, std::move(wheel));
}

}  // namespace Platform

}  // namespace Brelo
