#include "Zel/Clock.h"

#include <cmath>
#include <stdexcept>
#include <utility>

#include "Zel/System.h"
#include "Zel/internal/ClockQueue.h"

namespace Zel {

Clock::~Clock() = default;

double Clock::time() const {
  return System::currentTime();
}

Clock::NotifieeConst::~NotifieeConst() {
  if (queue_ != nullptr) queue_->disarm(*this);
}

/// Keeps a notifiee while it is told. As all of its clock belongs to one thread, a plain mark will
/// do, where a pair of counts would be a tenth of what the loop does for a callback.
class Clock::NotifieeConst::Telling {
 public:
  explicit Telling(NotifieeConst& notifiee)
      : notifiee_(notifiee), outer_(std::exchange(notifiee.told_, true)) {}
  Telling(Telling const&) = delete;
  Telling& operator=(Telling const&) = delete;
  ~Telling() {
    notifiee_.told_ = outer_;
    if (notifiee_.references() == 0) notifiee_.onZeroReferences();
  }

 private:
  NotifieeConst& notifiee_;
  bool const outer_;  ///< a handler runs the loop, which tells it once more
};

void Clock::NotifieeConst::tell() {
  Telling const telling(*this);
  onAttribute(timeAttribute, nullptr);
}

void Clock::NotifieeConst::onZeroReferences() const noexcept {
  if (!told_) delete this;
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
