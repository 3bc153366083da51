#pragma once

#include <string>
#include <vector>

namespace Bench {

/// Makes the bench program a process of clients, ahead of the arguments of `runServerClient`.
constexpr char const* serverClientOption = "--server-client";

/// What a process of clients does. A client has at most one request under way.
/// @{
constexpr char const* busyClients = "busy";     ///< they ask again at once, until the server goes
constexpr char const* burstClients = "burst";   ///< they ask, wait for all answers, and ask again
constexpr char const* politeClient = "polite";  ///< one that asks each millisecond, for a time
/// @}

/// What the polite client writes to its standard output at its end, in seconds. The clients of a
/// burst write one byte as soon as all of them have asked again.
struct PoliteLatency {
  double median;
  double percentile99;
};

/// `arguments` are one of the three, the server's port on the loopback address, and the number of
/// clients or, for the polite one, of milliseconds. Returns the status to exit with.
int runServerClient(std::vector<std::string> const& arguments);

}  // namespace Bench
