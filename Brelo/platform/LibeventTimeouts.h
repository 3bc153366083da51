#pragma once

#include <event2/event.h>

/// @file
/// Two operations on the pending timeouts of a base that libevent does not have. Both
/// walk all events of the base, those in common-timeout queues included. For the base's own thread.

namespace Brelo::Impl {

/// Stores the earliest expiry, on the clock of the events' own `ev_timeout`, and returns 0; or
/// returns non-zero if no timeout is pending.
int event_base_get_first_timeout(event_base* base, timeval* first);

/// Moves every pending timeout earlier by `delta`, their order kept. One may land in the past; it
/// fires at the next pass.
void event_base_timeout_subtract_offset(event_base* base, timeval const* delta);

}  // namespace Brelo::Impl
