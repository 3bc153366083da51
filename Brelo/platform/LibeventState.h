#pragma once

#include <event2/event.h>

#include "Brelo/Debug.h"

/// @file
/// What the sources of the libevent backend share among themselves.

namespace Brelo::Impl {

[[gnu::visibility("hidden")]] extern ModuleTrace const libeventTrace;

/// Count the controls of the calling thread's base, which is not freed at the thread's end while
/// there are any.
void leControlAdded();
void leControlRemoved(event_base const* base);

/// Keeps the exception in flight for the loop's entry and breaks the calling thread's loop. To be
/// called inside a catch block.
void leKeepException();

/// Dispatches the calling thread's base, then throws what `leKeepException` kept.
void leDispatch();
/// The same, for `timeout` seconds at most.
void leDispatchFor(double timeout);

/// With fast-forward on: moves time to the first timer.
void leSkipFirstWait();
/// With fast-forward on: moves time to the first timer, or by `maxTimeout` if that is less, and
/// serves what has fallen due.
void eventLoopFastForwardToFirstTimer(double maxTimeout);

}  // namespace Brelo::Impl
