#pragma once

#include "Brelo/Export.h"

namespace Brelo {

/// Seconds since the Unix epoch from the host's clock, which never steps; on every thread and
/// on either backend.
BRELO_EXPORT double time();

}  // namespace Brelo
