#pragma once

#include "Brelo/Debug.h"

/// The module handler "ZelBrelo".
namespace ZelBrelo {

[[gnu::visibility("hidden")]] extern Brelo::ModuleTrace const platformTrace;

}  // namespace ZelBrelo
