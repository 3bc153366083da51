#pragma once

#include <memory>

#include "Brelo/Platform.h"

/// @file
/// The backends of the platform: what each is made of, and which one a thread has.

namespace Brelo::Platform {

enum class BackendKind { host, libevent };

/// One row of the table: the makers of a backend's controls, and its loop, all for the calling
/// thread. See `getTimerControl`, `doEventLoop` and their companions.
struct Backend {
  BackendKind kind;
  std::shared_ptr<TimerControl> (*timerControl)(TimeoutHandler* handler, EventPriority priority);
  std::shared_ptr<CallbackControl> (*callbackControl)(CallbackHandler* handler);
  std::shared_ptr<FdControl> (*fdControl)(FdEventHandler* handler);
  void (*eventLoop)();
  void (*eventLoopFor)(double seconds);
  void (*eventLoopInWaitfor)(double maxTimeout);
  void (*stopEventLoop)();
  void (*pending)(PendingList& list);
  void (*waitsObservedIs)(bool observed);
};

/// The rows. The host's is defined where its controls are.
/// @{
Backend const& hostBackend();
Backend const& libeventBackend();
/// @}

/// The calling thread's backend: libevent if it chose singletons of its own. Final once asked.
Backend const& backend();

/// The host's virtual time. Off for good without it.
/// @{
bool virtualTimeEnabled();
void virtualTimeIs(bool on);
/// @}

}  // namespace Brelo::Platform
