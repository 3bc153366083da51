#pragma once

#include <sys/types.h>

#include <string>
#include <thread>

#include "Brelo/Export.h"

namespace Brelo {

/// The calling thread's kernel id.
BRELO_EXPORT pid_t gettid();

/// The calling thread is the one that the process started with.
BRELO_EXPORT bool isMainThread();

/// Chooses singletons of the calling thread's own: from here on its controls and loops run on
/// libevent, with an event base for this thread alone. To be called right after the thread has
/// started: once anything has asked `hasThreadLocalSingletons()`, a thread that uses the shared
/// singletons stays with them, and the call is an assertion. A second call is harmless.
BRELO_EXPORT void useThreadLocalSingletons();

/// The calling thread's choice, which is final once it has been asked for.
BRELO_EXPORT bool hasThreadLocalSingletons();

/// The calling thread's name, which is valid until the thread changes it.
BRELO_EXPORT char const* threadName();
/// Names the calling thread; the main thread keeps its name. More than 15 characters are an
/// assertion.
BRELO_EXPORT void threadNameIs(char const* name);
/// The id as the standard streams write it.
BRELO_EXPORT std::string toThreadIdString(std::thread::id id);

/// Whether the host's counted pointers count atomically. For the whole program, while it has a
/// single thread.
BRELO_EXPORT void threadSafePointerIs(bool on);

namespace Platform {

/// True in the child of every fork, until it says otherwise. The library itself goes by process
/// ids; this is for its users.
BRELO_EXPORT bool isForkedChild();
/// Sets the flag by hand.
BRELO_EXPORT void forkedChildIs(bool child);
/// The child's handler: sets the flag.
BRELO_EXPORT void handleFork();
/// Registers it; done when the library is loaded.
BRELO_EXPORT void setupHandler();

}  // namespace Platform

}  // namespace Brelo
