#pragma once

#include "Brelo/Debug.h"

namespace Wordd {

/// What the daemon survives, at level 1.
inline Brelo::ModuleTrace const trace("Wordd");

}  // namespace Wordd
