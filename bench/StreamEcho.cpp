// The echo server of the server unit, on what each library has for buffered connections.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Catalogue.h"
#include "ServerMemory.h"
#include "Servers.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr char const* unit = "stream";
constexpr std::uint64_t requestCount = 30'000;

constexpr std::size_t idleConnectionCount = 4'000;

struct Competitor {
  std::string who;
  Backend backend;
  Server serve;
};

std::vector<Competitor> competitors() {
  std::vector<Competitor> all;
  for (Backend const backend : BreloTest::backends)
    all.push_back({whoIs(backend), backend, serveWithStreams});
  all.push_back({"libevent", Backend::host, serveWithBufferevents});
  all.push_back({"libuv", Backend::host, serveWithUvStreams});
  all.push_back({"asio", Backend::host, serveWithAsioStreams});
  return all;
}

void addClients(Catalogue& catalogue, std::size_t clients, std::string const& form) {
  if (!canHold(2 * clients, form)) return;  // some serve a duplicate
  for (Competitor const& each : competitors()) {
    catalogue.measure(
        unit, form, each.who, requestCount,
        [=](std::uint64_t count) {
          auto const few = std::min<std::size_t>(clients, count / 10);
          return serveBusy(each.serve, few, count).cpuSeconds;
        },
        each.backend);
  }
}

void addMemory(Catalogue& catalogue) {
  std::string const form = "memory of an idle connection";
  if (!canHold(2 * idleConnectionCount, form)) return;
  for (Competitor const& each : competitors()) {
    if (each.who == "asio") continue;  // it reads at once, which event descriptors refuse
    catalogue.measureFigures(
        {{unit, form, "bytes"}}, each.who, idleConnectionCount,
        [serve = each.serve](std::uint64_t count) -> std::vector<double> {
          return {bytesOfIdleConnection(serve, count)};
        },
        each.backend);
  }
}

}  // namespace

void addStream(Catalogue& catalogue) {
  addClients(catalogue, 1, "1 client");
  addClients(catalogue, 50, "50 clients");
  addClients(catalogue, 500, "500 clients");
  addMemory(catalogue);
  for (char const* clients : {"50 clients", "500 clients"})
    catalogue.aimOnBackends(unit, clients, 1.1, "asio");
}

}  // namespace Bench
