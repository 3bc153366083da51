#include "Zel/Ptr.h"

namespace Zel {

std::atomic<bool> VFPtrInterface::threadSafePointers_{true};

VFPtrInterface::~VFPtrInterface() = default;

void VFPtrInterface::onZeroReferences() const noexcept {
  delete this;
}

PtrInterface::~PtrInterface() = default;

void PtrInterface::notify(AttributeId id) {
  forEach(notifiees_, [id](NotifieeConst& notifiee) {
    Ptr<NotifieeConst> const alive(&notifiee);
    notifiee.onAttribute(id, nullptr);
  });
}

void PtrInterface::forEachNotifiee(std::function<void(NotifieeConst&)> const& visit) {
  forEach(notifiees_, visit);
}

PtrInterface::NotifieeConst::~NotifieeConst() = default;

void PtrInterface::NotifieeConst::onAttribute(AttributeId, void const*) {}

void PtrInterface::NotifieeConst::notifierIs(Ptr<PtrInterface> notifier) {
  bool const registered = registered_;
  isRegisteredNotifieeIs(false);
  notifier_ = std::move(notifier);
  isRegisteredNotifieeIs(registered);
}

void PtrInterface::NotifieeConst::isRegisteredNotifieeIs(bool registered) {
  if (registered == registered_) return;
  if (registered) {
    if (notifier_) node_.insertBefore(notifier_->notifiees_);
  } else {
    node_.unlink();
  }
  registered_ = registered;
  if (notifier_) attachedIs(registered);
}

void PtrInterface::NotifieeConst::attachedIs(bool) {}

}  // namespace Zel
