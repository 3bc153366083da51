#include "Zel/Pending.h"

#include "Zel/internal/ActivityLoop.h"

namespace Zel::System {

void forEachArmed(std::function<void(Clock::NotifieeConst const&)> const& visit) {
  activityLoop().clock().forEachArmed(visit);
}

void forEachWatched(
    std::function<void(FileDescriptor const&, FileDescriptor::NotifieeConst const&)> const& visit) {
  descriptorSet().forEachWatched([&](FileDescriptor& descriptor) {
    descriptor.forEachNotifiee(
        [&](FileDescriptor::NotifieeConst const& notifiee) { visit(descriptor, notifiee); });
  });
}

}  // namespace Zel::System
