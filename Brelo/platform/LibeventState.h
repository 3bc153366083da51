#pragma once

#include <event2/event.h>

#include <atomic>
#include <cstdint>

#include "Brelo/Debug.h"
#include "Brelo/Platform.h"

/// @file
/// What the sources of the libevent backend share among themselves.

namespace Brelo::Impl {

[[gnu::visibility("hidden")]] extern ModuleTrace const libeventTrace;

/// Count the controls of the calling thread's base, which is not freed at the thread's end while
/// there are any.
void leControlAdded();
void leControlRemoved(event_base const* base);

/// Whether the calling thread may take the event out of its base. In a forked child the bases of
/// the parent's other threads are left as they are: nobody runs them, one of those threads may have
/// locked them, and their descriptors are the parent's to watch.
bool leMayTouch(event const& ev);

/// Keeps the exception in flight for the loop's entry and breaks the calling thread's loop. To be
/// called inside a catch block.
void leKeepException();
/// There is one, for which the loop ends.
bool leExceptionKept();

/// What libevent has warned of on this thread so far: of each system call that fails, which leaves
/// its `errno`, and not where memory runs out.
unsigned leWarnings();

/// The passes of the calling thread's loop so far, and the number of the present one, 0 outside.
/// Passes in a row before which no reads were to be settled count as one.
/// @{
std::uint64_t lePasses();
std::uint64_t lePass();
/// @}

/// The present pass may be the last one of this call of libevent, somebody else's call perhaps.
bool lePassEndsLoop();

/// In a handler: `leSettleReads` is wanted before the next pass.
void leReadsTurnedOff();

/// Takes reads that have been turned off out of the calling thread's base, or all of them. True if
/// some linger, which the next look must not wait for.
bool leSettleReads(bool all);

/// The calling thread's loop tells its waits, or does so no more.
void leWaitsObservedIs(bool observed);
/// How many threads' loops do.
[[gnu::visibility("hidden")]] extern std::atomic<unsigned> leObservedLoops;
/// The first handler after a wait shows that it is over.
void leHandlerAfterWait();
/// To be called as a handler begins.
inline void leHandlerBegins() {
  if (__builtin_expect(leObservedLoops.load(std::memory_order_relaxed) != 0, 0)) {
    leHandlerAfterWait();
  }
}

/// See `Platform::stopEventLoop`.
void leStop();
/// Adds what is in the calling thread's base, but for what belongs to the loop itself.
void lePending(Platform::PendingList& list);
/// The event is the bound of a loop's entry.
bool leIsBound(event const& ev);

/// Runs the calling thread's loop, then throws what `leKeepException` kept. True if `leStop` has
/// ended it.
bool leDispatch();
/// The same, for `timeout` seconds at most.
bool leDispatchFor(double timeout);

/// With fast-forward on: moves time to the first timer.
void leSkipFirstWait();
/// With fast-forward on: moves time to the first timer, or by `maxTimeout` if that is less, and
/// serves what has fallen due. True if `leStop` has ended that.
bool eventLoopFastForwardToFirstTimer(double maxTimeout);

}  // namespace Brelo::Impl
