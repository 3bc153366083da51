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

struct StateFlag {
  int flag;
  char const* name;
};
// By state.
constexpr StateFlag stateFlags[] = {
    {0x04, "notLinked"},
    {0x08, "inTimerWheel"},
    {0x10, "inTimersExpiryingSoon"},
};
constexpr int stateMask = 0x1c;

int stateToTimeoutFlags(TimerWheelState state) {
  auto const index = static_cast<unsigned>(state);
  if (index >= std::size(stateFlags)) BRELO_FAIL("TimerWheelEvent", "invalid state {}", index);
  return stateFlags[index].flag;
}

TimerWheelState timeoutFlagsToState(int flags) {
  int const bits = flags & stateMask;
  if (bits == 0 || (bits & (bits - 1)) != 0) {
    BRELO_FAIL("TimerWheelEvent", "None or multiple of our flags set {}", flags);
  }
  for (unsigned state = 0; state < std::size(stateFlags); ++state) {
    if (bits == stateFlags[state].flag) return static_cast<TimerWheelState>(state);
  }
  BRELO_FAIL("TimerWheelEvent", "Invalid flag combination {}", flags);
}

}  // namespace

std::string timerWheelStateToString(TimerWheelState state) {
  auto const index = static_cast<unsigned>(state);
  return index < std::size(stateFlags) ? stateFlags[index].name : "unknownState";
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
  TimerWheelState const current = this->state();
  if (state == current) return;
  if (state != TimerWheelState::notLinked && current != TimerWheelState::notLinked) {
    BRELO_FAIL("TimerWheelEvent", "State change {} -> {} must go via {}",
               timerWheelStateToString(current), timerWheelStateToString(state),
               timerWheelStateToString(TimerWheelState::notLinked));
  }
  timeoutLink_.flags = (timeoutLink_.flags & ~stateMask) | stateToTimeoutFlags(state);
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
