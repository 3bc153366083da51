#include "Brelo/Platform.h"

#include <cmath>
#include <unordered_set>

#include "Brelo/Assert.h"
#include "Brelo/Thread.h"
#include "Brelo/platform/Backend.h"

namespace Brelo {

namespace Platform {

namespace {

bool refCounting = true;

std::unordered_set<void (*)()>& fastForwardChangeNotifiers() {
  static std::unordered_set<void (*)()> notifiers;
  return notifiers;
}

void checkHostFastForward(char const* func, int line) {
  if (backend().kind == BackendKind::host) return;
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
  return backend().timerControl(handler, priority);
}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler) {
  return backend().callbackControl(handler);
}

std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler) {
  return backend().fdControl(handler);
}

void doEventLoop() {
  backend().eventLoop();
}

void doEventLoop(double seconds) {
  if (std::isnan(seconds)) BRELO_FAIL("Brelo", "timeout is not a number");
  backend().eventLoopFor(seconds);
}

void stopEventLoop() {
  backend().stopEventLoop();
}

void doEventLoopInWaitfor(double maxTimeout) {
  if (std::isnan(maxTimeout)) BRELO_FAIL("Brelo", "timeout is not a number");
  backend().eventLoopInWaitfor(maxTimeout);
}

Backend const& backend() {
  return hasThreadLocalSingletons() ? libeventBackend() : hostBackend();
}

void setFastForward(bool on) {
  checkHostFastForward(__func__, __LINE__);
  if (virtualTimeEnabled() == on) return;
  virtualTimeIs(on);
  for (auto* const notifier : fastForwardChangeNotifiers())
    notifier();
}

bool fastForward() {
  checkHostFastForward(__func__, __LINE__);
  return virtualTimeEnabled();
}

void registerFastForwardChangeNotifier(void (*notifier)()) {
  fastForwardChangeNotifiers().insert(notifier);
}

void refCountingEnabledIs(bool on) {
  refCounting = on;
}

bool refCountingEnabled() {
  return refCounting;
}

fmt::format_context::iterator formatValue(EventPriority priority, fmt::format_context& context) {
  return fmt::format_to(context.out(), "{}", toString(priority));
}

}  // namespace Platform

}  // namespace Brelo
