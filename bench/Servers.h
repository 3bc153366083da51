#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
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

// On what each library has for buffered connections.
void serveWithStreams(std::vector<int> const& connections, Requests& requests);
void serveWithBufferevents(std::vector<int> const& connections, Requests& requests);
void serveWithUvStreams(std::vector<int> const& connections, Requests& requests);
void serveWithAsioStreams(std::vector<int> const& connections, Requests& requests);

/// Besides its connections a server has a few descriptors more, and so has the program. False,
/// with a word on standard error, if there are too few for `what`.
bool canHold(std::size_t clients, std::string const& what);

/// What busy clients cost, over all requests.
struct BusyFigures {
  double cpuSeconds;
  std::uint64_t reports;
};
BusyFigures serveBusy(Server const& serve, std::size_t clients, std::uint64_t count);

}  // namespace Bench
