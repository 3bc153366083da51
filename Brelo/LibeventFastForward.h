#pragma once

#include <sys/time.h>

#include "Brelo/Export.h"

/// @file
/// Virtual time on libevent: with fast-forward on, a loop entry moves all timers of the thread's
/// base earlier by the time that it would have slept, and runs at once.
///
/// The switch is the process's and is turned on the main thread; each thread's base has an offset
/// of its own. The host's switch is `Platform::setFastForward`.

namespace Brelo {

/// On a thread other than the main one this is an assertion. A change calls every notifier; what
/// one throws passes to the caller, and the switch stays as set.
BRELO_EXPORT void setLeFastForward(bool on);
/// Any thread may ask.
BRELO_EXPORT bool leFastForward();
/// Seconds skipped so far on the calling thread's base. Only grows.
BRELO_EXPORT double leVirtualTimeOffset();
/// `notifier` is called at each change, for good; a second registration changes nothing.
BRELO_EXPORT void leRegisterFastForwardChangeNotifier(void (*notifier)());
/// Moves all timers of the calling thread's base, which must exist, earlier by `delta`, and adds
/// that to its offset.
BRELO_EXPORT void applyFastForwardDelta(timeval const* delta);

}  // namespace Brelo
