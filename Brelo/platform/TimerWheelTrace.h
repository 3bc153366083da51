#pragma once

#include "Brelo/Debug.h"

/// @file
/// The module handler "BreloTimerWheel".

namespace Brelo::Impl {

[[gnu::visibility("hidden")]] extern ModuleTrace const timerWheelTrace;

}  // namespace Brelo::Impl
