#pragma once

#include <event2/event.h>

#include <memory>

#include "Brelo/Export.h"
#include "Brelo/LibeventControls.h"
#include "Brelo/LibeventFastForward.h"
#include "Brelo/Platform.h"

/// @file
/// The libevent backend of a thread: its event base, its loop and the makers of its controls.
///
/// Each thread has a base of its own, made at the first control or loop entry and freed when the
/// thread ends, unless controls of the thread are still alive then. Nothing here is shared
/// between threads. What goes wrong here is a programming error or an exhausted resource, and an
/// assertion.

namespace Brelo {

/// The calling thread's base, or null.
BRELO_EXPORT extern thread_local event_base* ev_base;
/// The calling thread was the main thread when its base was registered.
BRELO_EXPORT extern thread_local bool mainThread;

/// Gives the calling thread a base, if it has none.
BRELO_EXPORT void leInit();
/// A new base with the two priorities of `Platform::EventPriority` and exact timers; the first
/// call in the process also sets up libevent's locking, log and fatal callbacks. The caller owns
/// it until `leRegisterBase`.
BRELO_EXPORT event_base* leCreateBase();
/// Makes `base` the calling thread's own. An assertion if the thread has another one.
BRELO_EXPORT void leRegisterBase(event_base* base);
/// Frees the calling thread's base, if there is one. Controls that are still alive are left
/// dangling: the caller sees to it that there are none.
BRELO_EXPORT void leFree();
/// The calling thread has a base.
BRELO_EXPORT bool leInitialized();
/// Gives the calling thread's base, which it makes if there is none, an epoll set of its own. The
/// child of a `fork()` has had that done, so that the watches of the parent stay as they are; for
/// one that was made in another way, before it touches a control.
BRELO_EXPORT void leForkReinit();
/// Sets `mainThread` anew for the calling thread.
BRELO_EXPORT void setMainThread();

/// A new control on the calling thread's base, whatever its choice of backend;
/// `eventPriorityDefault` where no priority is given.
/// @{
BRELO_EXPORT std::shared_ptr<Platform::TimerControl> getLeTimerControl(
    Platform::TimeoutHandler* handler);
BRELO_EXPORT std::shared_ptr<Platform::TimerControl> getLeTimerControl(
    Platform::TimeoutHandler* handler, Platform::EventPriority priority);
BRELO_EXPORT std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(
    Platform::CallbackHandler* handler);
BRELO_EXPORT std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler);
/// @}

/// The loop of the calling thread; see `Platform::doEventLoop` and its companions. An entry from
/// inside a handler is refused by libevent: it is traced at level 0 and returns. Throws
/// `std::system_error` if the system refuses to wait.
/// @{
BRELO_EXPORT void doLeEventLoop();
BRELO_EXPORT void doLeEventLoop(double timeout);
BRELO_EXPORT void doLeEventLoopInWaitfor(double maxTimeout);
/// @}

/// libevent's log callback: traces the message. A severity that libevent does not have is an
/// assertion.
BRELO_EXPORT void le_debug_cb(int severity, char const* message);
/// libevent's fatal callback: an assertion.
BRELO_EXPORT void le_fatal_cb(int err);

}  // namespace Brelo
