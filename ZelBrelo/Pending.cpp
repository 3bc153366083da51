// What keeps the host's loop.

#include "Zel/Pending.h"

#include "Zel/System.h"
#include "ZelBrelo/internal/PendingNotifiee.h"

namespace ZelBrelo {

void pending(Brelo::Platform::PendingList& list) {
  Zel::System::forEachArmed([&](Zel::Clock::NotifieeConst const& notifiee) {
    if (auto const* const ours = dynamic_cast<PendingNotifiee const*>(&notifiee)) {
      ours->addTo(list);
    } else {
      list.addTimer(Brelo::Platform::stranger, notifiee.timeMin() - Zel::System::currentTime());
    }
  });
  Zel::System::forEachWatched([&](Zel::FileDescriptor const& descriptor,
                                  Zel::FileDescriptor::NotifieeConst const& notifiee) {
    if (auto const* const ours = dynamic_cast<PendingNotifiee const*>(&notifiee)) {
      ours->addTo(list);
    } else {
      list.addDescriptor(Brelo::Platform::stranger, descriptor.descriptor(),
                         descriptor.notifyOnReadable(), descriptor.notifyOnWritable());
    }
  });
}

}  // namespace ZelBrelo
