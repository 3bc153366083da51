#include "Brelo/Loco.h"

#include "Zel/Activity.h"
#include "ZelBrelo/ActivityLock.h"

namespace Brelo::Platform {

Loco& loco() {
  static ZelBrelo::ActivityLock lock(
      Zel::ActivityImplFacility::activityManagerSm()->activityLock());
  return lock;
}

}  // namespace Brelo::Platform
