#pragma once

#include <event2/event.h>

#include <memory>

#include "Brelo/LibeventControls.h"
#include "Brelo/LibeventFastForward.h"
#include "Brelo/Platform.h"

/// The libevent backend of a thread: its event base, its loop and the makers of its controls.
///
/// Each thread has a base of its own, made at the first control or loop entry and freed when the
/// thread ends, unless controls of the thread are still alive then. Nothing here is shared
/// between threads. What goes wrong here is a programming error or an exhausted resource, and an
/// assertion.

namespace Brelo {

/// The calling thread's base, or null.
extern thread_local event_base* ev_base;
/// The calling thread was the main thread when its base was registered.
extern thread_local bool mainThread;

/// Gives the calling thread a base, if it has none.
void leInit();
/// A new base with the two priorities of `Platform::EventPriority` and exact timers; the first
/// call in the process also sets up libevent's locking, log and fatal callbacks. The caller owns
/// it until `leRegisterBase`.
event_base* leCreateBase();
/// Makes `base` the calling thread's own. An assertion if the thread has another one.
void leRegisterBase(event_base* base);
/// Frees the calling thread's base, if there is one. Controls that are still alive are left
/// dangling: the caller sees to it that there are none.
void leFree();
bool leInitialized();
/// To be called in the child of a fork before it touches a control, so that the watches of the
/// parent stay as they are.
void leForkReinit();
void setMainThread();

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler);
std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler,
                                                          Platform::EventPriority priority);
std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(Platform::CallbackHandler* handler);
std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler);

/// The loop of the calling thread; see `Platform::doEventLoop` and its companions. An entry from
/// inside a handler is refused by libevent: it is traced at level 0 and returns.
void doLeEventLoop();
void doLeEventLoop(double timeout);
void doLeEventLoopInWaitfor(double maxTimeout);

/// libevent's log and fatal callbacks.
void le_debug_cb(int severity, char const* message);
void le_fatal_cb(int err);

}  // namespace Brelo
