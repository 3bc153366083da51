#include "Brelo/Platform.h"

#include <unordered_set>

#include "Brelo/Assert.h"
#include "Brelo/LibeventFactory.h"
#include "Brelo/Thread.h"
#include "Zel/Activity.h"
#include "Zel/System.h"
#include "ZelBrelo/Platform.h"

namespace Brelo {

namespace Platform {

namespace {

bool refCountingEnabled_ = true;

std::unordered_set<void (*)()>& fastForwardChangeNotifiers() {
  static std::unordered_set<void (*)()> notifiers;
  return notifiers;
}

void checkHostFastForward(char const* func, int line) {
  if (!hasThreadLocalSingletons()) return;
  DebugStream text;
  text << "ThreadLocal fastForward invoked from non-main thread";
  debugAndAssert(text, __FILE__, func, line);
}

}  // namespace

std::string toString(EventPriority priority) {
  switch (priority) {
    case eventPriorityStrictHigh:
      return "eventPriorityStrictHigh";
    case eventPriorityDefault:
      return "eventPriorityDefault";
  }
  return fmt::format("Invalid EventPriority={}", priority);
}

bool FdEventHandler::handleFdException(int) {
  return false;
}

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler) {
  return getTimerControl(handler, eventPriorityDefault);
}

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler, EventPriority priority) {
  if (hasThreadLocalSingletons()) return getLeTimerControl(handler, priority);
  return ZelBrelo::getTimerControl(handler);
}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler) {
  if (hasThreadLocalSingletons()) return getLeCallbackControl(handler);
  return ZelBrelo::getCallbackControl(handler);
}

std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler) {
  if (hasThreadLocalSingletons()) return getLeFdControl(handler);
  return ZelBrelo::getFdControl(handler);
}

void doEventLoop() {
  if (hasThreadLocalSingletons()) return doLeEventLoop();
  Zel::System::doRun();
}

void doEventLoop(double seconds) {
  if (hasThreadLocalSingletons()) return doLeEventLoop(seconds);
  Zel::ActivityFacility::activityManagerConfig()->executionTimeIs(seconds);
  Zel::System::doRun();
}

void doEventLoopInWaitfor(double maxTimeout) {
  if (hasThreadLocalSingletons()) return doLeEventLoopInWaitfor(maxTimeout);
  doEventLoop(maxTimeout);
}

void setFastForward(bool on) {
  checkHostFastForward(__func__, __LINE__);
  auto const& manager = Zel::activityManager();
  if (manager->virtualTime() == on) return;
  manager->virtualTimeIs(on);
  for (auto* const notifier : fastForwardChangeNotifiers())
    notifier();
}

bool fastForward() {
  checkHostFastForward(__func__, __LINE__);
  return Zel::activityManager()->virtualTime();
}

void registerFastForwardChangeNotifier(void (*notifier)()) {
  fastForwardChangeNotifiers().insert(notifier);
}

void refCountingEnabledIs(bool on) {
  refCountingEnabled_ = on;
}

bool refCountingEnabled() {
  return refCountingEnabled_;
}

}  // namespace Platform

}  // namespace Brelo

auto fmt::formatter<Brelo::Platform::EventPriority>::format(Brelo::Platform::EventPriority priority,
                                                            format_context& context) const
    -> format_context::iterator {
  return fmt::format_to(context.out(), "{}", Brelo::Platform::toString(priority));
}
