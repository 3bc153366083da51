// Timers and callbacks on the host's clock.

#include <cmath>
#include <limits>
#include <utility>

#include "Brelo/Assert.h"
#include "Zel/System.h"
#include "ZelBrelo/Platform.h"
#include "ZelBrelo/internal/PendingNotifiee.h"
#include "ZelBrelo/internal/PlatformTrace.h"

namespace ZelBrelo {

namespace {

constexpr double never = std::numeric_limits<double>::infinity();

}  // namespace

class ClockTimer::Notifiee : public Zel::Clock::NotifieeConst, public PendingNotifiee {
 public:
  explicit Notifiee(ClockTimer* owner) : owner_(owner) {}

  void onAttribute(Zel::AttributeId id, void const* value) override {
    if (id != Zel::timeAttribute) return Zel::Clock::NotifieeConst::onAttribute(id, value);
    if (owner_ == nullptr) {
      BRELO_TRACE(platformTrace, 5, "ClockTimer::Notifiee", "ignoring orphan");
      return;
    }
    onTime();
  }
  void addTo(Brelo::Platform::PendingList& list) const override {
    if (owner_ == nullptr) return;
    owner_->handler_->timerPending(list, timeMin() - Zel::System::currentTime());
  }
  void orphan() {
    BRELO_TRACE(platformTrace, 5, "ClockTimer::Notifiee", "");
    owner_ = nullptr;
  }

 private:
  ~Notifiee() override { BRELO_TRACE(platformTrace, 5, "ClockTimer::Notifiee", ""); }

  void onTime() {
    BRELO_TRACE(platformTrace, 5, "ClockTimer", "");
    try {
      owner_->handler_->timeout();
    } catch (...) {
      // The handler may have ended the control, and itself, before it threw.
      if (owner_ == nullptr || !owner_->onNotificationException()) throw;
      BRELO_TRACE(platformTrace, 9, nullptr,
                  "ClockTimer::Notifiee::onTime: Timeout notification exception was handled");
    }
  }

  ClockTimer* owner_;
};

ClockTimer::ClockTimer(Brelo::Platform::TimeoutHandler* handler, Zel::Ptr<Zel::Clock> clock)
    : TimerControl(handler), clock_(std::move(clock)), notifiee_(new Notifiee(this)) {
  notifiee_->notifierIs(clock_);
  notifiee_->isRegisteredNotifieeIs(true);
  notifiee_->timeMinIs(never);
}

ClockTimer::~ClockTimer() {
  notifiee_->orphan();
  ClockTimer::delTimeout();
}

void ClockTimer::setTimeout(double seconds) {
  BRELO_TRACE(platformTrace, 5, "ClockTimer", "{}", seconds);
  if (std::isnan(seconds)) BRELO_FAIL("ClockTimer", "timeout is not a number");
  notifiee_->timeMinIs(Zel::System::currentTime() + seconds);
}

void ClockTimer::delTimeout() {
  BRELO_TRACE(platformTrace, 5, "ClockTimer", "");
  notifiee_->timeMinIs(never);
}

double ClockTimer::remainingTimeout() const {
  BRELO_TRACE(platformTrace, 5, "ClockTimer", "");
  double const timeMin = notifiee_->timeMin();
  if (timeMin == never) return never;
  double const now = Zel::System::currentTime();
  return now > timeMin ? 0.0 : timeMin - now;
}

bool ClockTimer::onNotificationException() {
  return handler_->handleTimeoutException();
}

Callback::Callback(Brelo::Platform::CallbackHandler* handler, Zel::Ptr<Zel::Clock> clock)
    : CallbackControl(handler), ClockTimer(this, std::move(clock)) {}

Callback::~Callback() = default;

void Callback::requestCallback() {
  BRELO_TRACE(platformTrace, 5, "Callback", "");
  notifiee_->timeMinIs(0.0);
}

void Callback::cancelCallback() {
  ClockTimer::delTimeout();
}

bool Callback::pendingCallback() const {
  return ClockTimer::remainingTimeout() != never;
}

void Callback::timeout() {
  CallbackControl::handler_->callback();
}

void Callback::timerPending(Brelo::Platform::PendingList& list, double) const {
  list.addCallback(CallbackControl::handler_->handlerName());
}

bool Callback::onNotificationException() {
  return CallbackControl::handler_->handleCallbackException();
}

}  // namespace ZelBrelo
