// The echo server of the server unit, on what each library has for buffered connections.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Catalogue.h"
#include "Servers.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr char const* unit = "stream";
constexpr std::uint64_t requestCount = 30'000;

void addClients(Catalogue& catalogue, std::size_t clients, std::string const& form) {
  if (!canHold(clients, form)) return;
  auto const add = [&](std::string const& who, Server const& serve, Backend backend) {
    catalogue.measure(
        unit, form, who, requestCount,
        [=](std::uint64_t count) {
          return serveBusy(serve, std::min<std::size_t>(clients, count / 10), count).cpuSeconds;
        },
        backend);
  };
  for (Backend const backend : BreloTest::backends)
    add(whoIs(backend), serveWithStreams, backend);
  add("libevent", serveWithBufferevents, Backend::host);
  add("libuv", serveWithUvStreams, Backend::host);
  add("asio", serveWithAsioStreams, Backend::host);
}

}  // namespace

void addStream(Catalogue& catalogue) {
  addClients(catalogue, 1, "1 client");
  addClients(catalogue, 50, "50 clients");
  addClients(catalogue, 500, "500 clients");
  for (char const* clients : {"50 clients", "500 clients"})
    catalogue.aimOnBackends(unit, clients, 1.1, "asio");
}

}  // namespace Bench
