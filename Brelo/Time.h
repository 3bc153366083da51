#pragma once

#include <cstdint>

#include "Brelo/Export.h"

namespace Brelo {

/// Seconds since the Unix epoch from the host's clock, which never steps; on every thread and
/// on either backend.
BRELO_EXPORT double time();
/// What `time()` says, as virtual time stands now, at a reading of the monotonic clock in
/// nanoseconds.
BRELO_EXPORT double timeAtMonotonic(std::int64_t nanoseconds);

}  // namespace Brelo
