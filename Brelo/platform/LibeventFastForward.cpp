#include "Brelo/LibeventFastForward.h"

#include <atomic>
#include <new>
#include <unordered_set>

#include "Brelo/Assert.h"
#include "Brelo/LibeventFactory.h"
#include "Brelo/Platform.h"
#include "Brelo/platform/LibeventState.h"
#include "Brelo/platform/LibeventTimeouts.h"

namespace Brelo {

using Impl::libeventTrace;

namespace {

std::atomic<bool> fastForward{false};
thread_local timeval virtualTimeOffset_{0, 0};

// By how much the first timer is overdue after the move.
constexpr timeval extraDelay{0, 100};

std::unordered_set<void (*)()>& fastForwardChangeNotifiers() {
  static std::unordered_set<void (*)()> notifiers;
  return notifiers;
}

double toSeconds(timeval const& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// The base's own idea of now, whatever its clock: the expiry of a timeout of zero.
timeval baseNow() {
  event ev;
  event_assign(&ev, ev_base, -1, 0, nullptr, nullptr);
  eventPrioritySet(&ev, Platform::eventPriorityDefault);
  timeval const zero{};
  if (event_add(&ev, &zero) != 0) throw std::bad_alloc();
  timeval const now = ev.ev_timeout;
  event_del(&ev);
  return now;
}

/// By how much time has to move for the first timer to be due. False without a timer.
bool fastForwardDelayToFirstTimer(timeval* delta) {
  if (!leFastForward()) BRELO_FAIL("Brelo", "Called without fast forward enabled");
  timeval first;
  if (Impl::event_base_get_first_timeout(ev_base, &first) != 0) {
    BRELO_TRACE(libeventTrace, 9, "Brelo", "no timers");
    return false;
  }
  timeval const now = baseNow();
  if (!timercmp(&first, &now, >)) {
    BRELO_TRACE(libeventTrace, 9, "Brelo", "first timer expired at {} now {} return zero delta",
                toSeconds(first), toSeconds(now));
    *delta = {0, 0};
    return true;
  }
  timeval wait;
  timersub(&first, &now, &wait);
  timeradd(&wait, &extraDelay, delta);
  BRELO_TRACE(libeventTrace, 9, "Brelo",
              "first timer will at {} now {} delta {} extraDelay {} return delta {}",
              toSeconds(first), toSeconds(now), toSeconds(wait), toSeconds(extraDelay),
              toSeconds(*delta));
  return true;
}

}  // namespace

void setLeFastForward(bool on) {
  leInit();
  if (!mainThread) BRELO_FAIL("Brelo", "FastForward invoked from non-main thread");
  if (fastForward == on) return;
  fastForward = on;
  for (auto* const notifier : fastForwardChangeNotifiers())
    notifier();
}

bool leFastForward() {
  return fastForward;
}

double leVirtualTimeOffset() {
  return toSeconds(virtualTimeOffset_);
}

void leRegisterFastForwardChangeNotifier(void (*notifier)()) {
  fastForwardChangeNotifiers().insert(notifier);
}

void applyFastForwardDelta(timeval const* delta) {
  Impl::event_base_timeout_subtract_offset(ev_base, delta);
  timeradd(&virtualTimeOffset_, delta, &virtualTimeOffset_);
  BRELO_TRACE(libeventTrace, 2, "Brelo", "Increasing virtual time offset by {} to {}",
              toSeconds(*delta), toSeconds(virtualTimeOffset_));
}

void Impl::leSkipFirstWait() {
  timeval delta;
  if (fastForwardDelayToFirstTimer(&delta)) applyFastForwardDelta(&delta);
}

bool Impl::eventLoopFastForwardToFirstTimer(double maxTimeout) {
  BRELO_TRACE(libeventTrace, 5, "Brelo", "maxTimeout {}", maxTimeout);
  if (!leFastForward()) BRELO_FAIL("Brelo", "Called without fastForward enabled");
  timeval const max = toTimeval(maxTimeout);
  timeval delay;
  bool const toTimer = fastForwardDelayToFirstTimer(&delay) && timercmp(&delay, &max, <);
  applyFastForwardDelta(toTimer ? &delay : &max);
  return Impl::leDispatchFor(0.0);
}

}  // namespace Brelo
