#pragma once

#include <string>

namespace Brelo {
class TaskSchedulerRoot;
}

namespace Soak {

/// Appends the events of the root's ring to a file, as a document *history*
/// (doc/observe/protocol.md).
void saveHistory(Brelo::TaskSchedulerRoot const& root, std::string const& file);

}  // namespace Soak
