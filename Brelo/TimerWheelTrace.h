#pragma once

#include "Brelo/Debug.h"

/// The module handler "BreloTimerWheel"; not for clients.
namespace Brelo::Impl {

[[gnu::visibility("hidden")]] extern ModuleTrace const timerWheelTrace;

}  // namespace Brelo::Impl
