#pragma once

#include "Brelo/platform/Pending.h"

namespace ZelBrelo {

/// A notifiee of the host's that can say for whom it waits.
class PendingNotifiee {
 public:
  virtual void addTo(Brelo::Platform::PendingList& list) const = 0;

 protected:
  ~PendingNotifiee() = default;
};

/// Adds what keeps the host's loop.
void pending(Brelo::Platform::PendingList& list);

}  // namespace ZelBrelo
