#include "ZelBrelo/Platform.h"

#include "Brelo/MemTrack.h"
#include "Brelo/platform/Backend.h"
#include "Brelo/platform/WaitObserver.h"
#include "Zel/System.h"
#include "ZelBrelo/internal/PendingNotifiee.h"
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

namespace Brelo::Platform {

namespace {

// The host has no priorities.
std::shared_ptr<TimerControl> timerControl(TimeoutHandler* handler, EventPriority) {
  return ZelBrelo::getTimerControl(handler);
}

void eventLoopFor(double seconds) {
  Zel::ActivityFacility::activityManagerConfig()->executionTimeIs(seconds);
  Zel::System::doRun();
}

void waitsObservedIs(bool observed) {
  Zel::activityManager()->waitHookIs(observed ? &Impl::tellWait : nullptr);
}

}  // namespace

Backend const& hostBackend() {
  static constexpr Backend row = {
      BackendKind::host,      timerControl,          ZelBrelo::getCallbackControl,
      ZelBrelo::getFdControl, &Zel::System::doRun,   eventLoopFor,
      eventLoopFor,           &Zel::System::stopRun, ZelBrelo::pending,
      waitsObservedIs};
  return row;
}

bool virtualTimeEnabled() {
  static auto const manager = Zel::activityManager();
  return manager->virtualTime();
}

void virtualTimeIs(bool on) {
  Zel::activityManager()->virtualTimeIs(on);
}

}  // namespace Brelo::Platform
