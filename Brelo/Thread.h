#pragma once

#include <sys/types.h>

#include <string>
#include <thread>

namespace Brelo {

/// The calling thread's kernel id.
pid_t gettid();

/// The calling thread is the one that the process started with.
bool isMainThread();

/// Chooses singletons of the calling thread's own: from here on its controls and loops run on
/// libevent, with an event base for this thread alone. To be called right after the thread has
/// started: once anything has asked `hasThreadLocalSingletons()`, a thread that uses the shared
/// singletons stays with them, and the call is an assertion. A second call is harmless.
void useThreadLocalSingletons();

/// The calling thread's choice, which is final once it has been asked for.
bool hasThreadLocalSingletons();

/// The calling thread's name, which is valid until the thread changes it.
char const* threadName();
/// Names the calling thread; the main thread keeps its name. More than 15 characters are an
/// assertion.
void threadNameIs(char const* name);
/// The id as the standard streams write it.
std::string toThreadIdString(std::thread::id id);

/// Whether the host's counted pointers count atomically. For the whole program, while it has a
/// single thread.
void threadSafePointerIs(bool on);

namespace Platform {

/// True in the child of every fork, until it says otherwise. The library itself goes by process
/// ids; this is for its users.
bool isForkedChild();
void forkedChildIs(bool child);
/// The child's handler: sets the flag.
void handleFork();
/// Registers it; done when the library is loaded.
void setupHandler();

}  // namespace Platform

}  // namespace Brelo
