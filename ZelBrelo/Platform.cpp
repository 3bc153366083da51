#include "ZelBrelo/Platform.h"

#include "Brelo/MemTrack.h"
#include "ZelBrelo/internal/PlatformTrace.h"

namespace ZelBrelo {

Brelo::ModuleTrace const platformTrace("ZelBrelo");

std::shared_ptr<Brelo::Platform::TimerControl> getTimerControl(
    Brelo::Platform::TimeoutHandler* handler) {
  return Brelo::makeTracked<ClockTimer>(handler, Zel::activityManager()->clock());
}

std::shared_ptr<Brelo::Platform::CallbackControl> getCallbackControl(
    Brelo::Platform::CallbackHandler* handler) {
  return Brelo::makeTracked<Callback>(handler, Zel::activityManager()->clock());
}

std::shared_ptr<Brelo::Platform::FdControl> getFdControl(Brelo::Platform::FdEventHandler* handler) {
  Zel::Ptr<Zel::FileDescriptor> const hostFd(new Zel::FileDescriptor("PlatformFd"));
  hostFd->hasNotificationActiveIs(true);
  return Brelo::makeTracked<FileDescriptor>(hostFd, handler);
}

}  // namespace ZelBrelo
