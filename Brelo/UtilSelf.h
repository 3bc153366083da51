#pragma once

#include <string>

#include "Brelo/Debug.h"
#include "Brelo/Export.h"

/// What a process tells, asks and changes about itself. Any thread may call.

namespace Brelo {

/// Seconds that a bounded wait lasts if nobody says otherwise: the environment's WAITFOR_DEFAULT
/// as it stood at the first call, else positive infinity. A value that is not a number is reported
/// once on standard error.
BRELO_EXPORT double waitForDefaultTimeout();

namespace Util {

/// Leaves a sign of life: one line with process, thread, the handler's name and the text, in the
/// trace at level 1 and in the system log (local5, debug).
BRELO_EXPORT void emitCanaryLog(Platform::DebugHandler& handler, std::string const& text);

/// The address of a symbol of the running program or of what it was linked with; null if there is
/// none, and `resolveSymError()` tells why.
BRELO_EXPORT void* resolveSym(Platform::DebugHandler& handler, char const* name);
/// What the calling thread's last `resolveSym` failed with, once; else null. Valid until the
/// thread's next `resolveSym`.
BRELO_EXPORT char const* resolveSymError();

/// Adds shared memory that is backed by a file to what the process's core dumps hold. A filter
/// that cannot be read is an assertion.
BRELO_EXPORT void includeShmemInCore();

}  // namespace Util

/// The hooks through which an allocator of the program's own reports to a heap checker.
namespace HeapChecker {

/// The checker's entry for an allocation. Null unless the environment has HEAPCHECK or
/// HEAP_CHECK_TRACE_PYTHON_ARENAS and a checker is loaded.
BRELO_EXPORT void* resolveAllocSym(Platform::DebugHandler& handler);
/// The same for a release.
BRELO_EXPORT void* resolveFreeSym(Platform::DebugHandler& handler);

}  // namespace HeapChecker

}  // namespace Brelo
