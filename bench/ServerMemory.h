#pragma once

#include <cstddef>

#include "Servers.h"

namespace Bench {

/// The heap that one of `count` connections takes in the server, its descriptor left to the kernel.
double bytesOfIdleConnection(Server const& serve, std::size_t count);

}  // namespace Bench
