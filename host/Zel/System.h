#pragma once

#include <cstdint>

#include "Zel/Export.h"
#include "Zel/String.h"

/// The process as the host runtime sees it.
namespace Zel::System {

/// Seconds since the Unix epoch, on a clock that never steps: it starts at the time of day
/// at load and advances with the monotonic clock from there, and by what virtual time has
/// skipped. A double resolves a quarter of a microsecond here. Any thread.
ZEL_EXPORT double currentTime();

/// What `currentTime()` says, as virtual time stands now, at a reading of the monotonic clock
/// (`CLOCK_MONOTONIC`) in nanoseconds. Any thread.
ZEL_EXPORT double timeAtMonotonic(std::int64_t nanoseconds);

/// Runs the activity loop on the calling thread: for the execution time if one has been set
/// (see `ActivityManagerConfig::executionTimeIs`), and otherwise until no clock notifiee is
/// armed and no descriptor is watched.
///
/// Handlers run inside, with the activity lock held. What a handler throws leaves from here,
/// and the loop can be entered again; nothing that was due or ready is lost by it. May be
/// called from inside a handler: the inner run begins with what the outer one had found due or
/// ready. One thread at a time. Waits are made without the thread's timer slack, which a run takes
/// off and gives back; a thread started by a handler may inherit that it has none. Throws
/// `std::system_error` if the system refuses an epoll set.
ZEL_EXPORT void doRun();

/// Ends the run of the activity loop that is innermost at this moment with its present pass, or
/// the next run with its first, which does not wait. What an exception takes out of the loop
/// before has not ended by this, which then counts for the next run. On the loop's thread.
ZEL_EXPORT void stopRun();

/// The value of an environment variable, empty if it is not set, and in a program that has other
/// rights than its caller (set-user-id and the like). Any thread, while nobody changes the
/// environment.
ZEL_EXPORT String getenv(String const& name);

}  // namespace Zel::System
