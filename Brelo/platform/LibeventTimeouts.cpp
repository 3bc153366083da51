#include "Brelo/platform/LibeventTimeouts.h"

#include <event2/event_struct.h>
#include <sys/time.h>

namespace Brelo::Impl {

namespace {

// libevent keeps the microseconds in these bits of `tv_usec`, and the mark of a common-timeout
// queue, which has to stay, in those above.
constexpr suseconds_t usecMask = 0x000fffff;

bool hasTimeout(event const* ev) {
  return (ev->ev_evcallback.evcb_flags & EVLIST_TIMEOUT) != 0;
}

/// Has expired in a pass that was left before its handler ran.
bool hasExpired(event const* ev) {
  return (ev->ev_evcallback.evcb_flags & EVLIST_ACTIVE) != 0 && (ev->ev_res & EV_TIMEOUT) != 0;
}

timeval expiryOf(event const* ev) {
  return {ev->ev_timeout.tv_sec, ev->ev_timeout.tv_usec & usecMask};
}

struct First {
  bool found = false;
  timeval expiry{};
};

int takeEarlier(event_base const*, event const* ev, void* argument) {
  auto* const first = static_cast<First*>(argument);
  if (!hasTimeout(ev) && !hasExpired(ev)) return 0;
  timeval const expiry = expiryOf(ev);
  if (!first->found || timercmp(&expiry, &first->expiry, <)) *first = {true, expiry};
  return 0;
}

int moveEarlier(event_base const*, event const* ev, void* argument) {
  if (!hasTimeout(ev)) return 0;
  timeval const expiry = expiryOf(ev);
  timeval moved;
  timersub(&expiry, static_cast<timeval const*>(argument), &moved);
  timeval& stored = const_cast<event*>(ev)->ev_timeout;
  stored.tv_sec = moved.tv_sec;
  stored.tv_usec = moved.tv_usec | (stored.tv_usec & ~usecMask);
  return 0;
}

}  // namespace

int event_base_get_first_timeout(event_base* base, timeval* first) {
  First result;
  event_base_foreach_event(base, takeEarlier, &result);
  if (!result.found) return -1;
  *first = result.expiry;
  return 0;
}

void event_base_timeout_subtract_offset(event_base* base, timeval const* delta) {
  timeval copy = *delta;
  event_base_foreach_event(base, moveEarlier, &copy);
}

}  // namespace Brelo::Impl
