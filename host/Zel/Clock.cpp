#include "Zel/Clock.h"

#include <cmath>
#include <stdexcept>

#include "Zel/ClockQueue.h"
#include "Zel/System.h"

namespace Zel {

Clock::~Clock() = default;

double Clock::time() const {
  return System::currentTime();
}

Clock::NotifieeConst::~NotifieeConst() {
  if (queue_ != nullptr) queue_->disarm(*this);
}

void Clock::NotifieeConst::timeMinIs(double seconds) {
  if (std::isnan(seconds)) throw std::invalid_argument("a clock notifiee's time is not a number");
  timeMin_ = seconds;
  if (queue_ != nullptr) queue_->arm(*this);
}

void Clock::NotifieeConst::attachedIs(bool attached) {
  if (attached) {
    auto* const clock = dynamic_cast<Clock*>(notifier().ptr());
    queue_ = clock != nullptr ? &clock->queue_ : nullptr;
    if (queue_ != nullptr) queue_->arm(*this);
  } else if (queue_ != nullptr) {
    queue_->disarm(*this);
    queue_ = nullptr;
  }
}

}  // namespace Zel
