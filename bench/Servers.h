#pragma once

#include <functional>
#include <vector>

#include "ServerProtocol.h"

namespace Bench {

/// Serves the connections on one loop of the calling thread, until the requests are over.
using Server = std::function<void(std::vector<int> const& connections, Requests& requests)>;

void serveWithControls(std::vector<int> const& connections, Requests& requests);
void serveWithRootTasks(std::vector<int> const& connections, Requests& requests);
void serveWithGroupTasks(std::vector<int> const& connections, Requests& requests);
void serveWithLibevent(std::vector<int> const& connections, Requests& requests);
void serveWithUv(std::vector<int> const& connections, Requests& requests);
void serveWithAsio(std::vector<int> const& connections, Requests& requests);

}  // namespace Bench
