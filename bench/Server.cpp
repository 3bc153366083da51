// A TCP echo server on the loopback address, its clients in another process.
//
// Each client has one request under way. The CPU time is that of the server, reads, writes and
// the loop together; what is reported are the descriptors that the loop calls readable.

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Catalogue.h"
#include "ServerClient.h"
#include "ServerIdle.h"
#include "ServerMemory.h"
#include "ServerSetup.h"
#include "Servers.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr char const* unit = "server";
constexpr std::uint64_t requestCount = 30'000;
// Each request of one client is two wake-ups, whose cost moves by a fifth within seconds.
constexpr unsigned piecesOfOneClient = 6;
constexpr std::size_t busyBesidePolite = 500;
constexpr std::uint64_t politeMilliseconds = 1'000;
constexpr std::size_t burstClientCount = 4'000;
constexpr std::size_t idleConnectionCount = 10'000;

/// One library as server. Its `suffix` makes the name of a form.
struct Competitor {
  std::string who;
  std::string suffix;
  Backend backend;
  Server serve;
};

std::vector<Competitor> competitors() {
  std::vector<Competitor> all;
  for (Backend const backend : BreloTest::backends) {
    all.push_back({whoIs(backend), "", backend, serveWithControls});
    all.push_back({whoIs(backend), " as root tasks", backend, serveWithRootTasks});
    all.push_back({whoIs(backend), " as group tasks", backend, serveWithGroupTasks});
  }
  all.push_back({"libevent", "", Backend::host, serveWithLibevent});
  all.push_back({"libuv", "", Backend::host, serveWithUv});
  all.push_back({"asio", "", Backend::host, serveWithAsio});
  return all;
}

void serveToTheEnd(Server const& serve, std::vector<int> const& connections, Requests& requests) {
  useFirstProcessor();
  serve(connections, requests);
  if (!requests.complete()) throw std::runtime_error("server: the clients have gone");
}

/// All clients have asked once before the measured part begins, which keeps a loop's first look at
/// new descriptors out of it. The loop is held until all have asked again.
std::vector<double> serveBurst(Server const& serve, std::size_t clients) {
  Listener const listener;
  ClientProcess const process(burstClients, listener, clients);
  Connections connections;
  connections.accept(listener, clients);
  Requests requests(clients, clients, [&] {
    char haveAsked;
    return process.read(&haveAsked, 1);
  });
  serveToTheEnd(serve, connections.fds(), requests);
  return {requests.cpuSeconds() * 1e3};
}

/// Served until the polite client has had enough, and goes.
std::vector<double> servePolite(Server const& serve, std::size_t busy, std::uint64_t milliseconds) {
  Listener const listener;
  ClientProcess const crowd(busyClients, listener, busy);
  Connections connections;
  connections.accept(listener, busy);
  ClientProcess const process(politeClient, listener, milliseconds);
  connections.accept(listener, 1);
  Requests requests(0, std::numeric_limits<std::uint64_t>::max());
  useFirstProcessor();
  serve(connections.fds(), requests);
  PoliteLatency latency;
  if (!process.read(&latency, sizeof latency)) {
    throw std::runtime_error("server: the polite client has gone");
  }
  return {latency.median * 1e9, latency.percentile99 * 1e9};
}

/// The peers' reports are left out: they call for each of them, and one read takes all there is.
void addBusy(Catalogue& catalogue, std::size_t clients, std::string const& form) {
  if (!canHold(clients, form)) return;
  for (Competitor const& each : competitors()) {
    std::vector<Figure> figures = {{unit, form + each.suffix, "CPU ns"}};
    if (isOurs(each.who)) {
      figures.push_back({unit, "readiness of " + form + each.suffix, "reports"});
      catalogue.aim({unit, figures.back().form, each.who, 2.1, ""});
    }
    catalogue.measureFigures(
        figures, each.who, requestCount,
        [=, number = figures.size()](std::uint64_t count) {
          // Every client asks ten times or more: a small run has few.
          auto const busy =
              serveBusy(each.serve, std::min<std::size_t>(clients, count / 10), count);
          auto const all = static_cast<double>(count);
          std::vector<double> values = {busy.cpuSeconds * 1e9 / all,
                                        static_cast<double>(busy.reports) / all};
          values.resize(number);
          return values;
        },
        each.backend, clients == 1 ? piecesOfOneClient : 1);
  }
}

void addPolite(Catalogue& catalogue) {
  std::string const form = "polite client";
  if (!canHold(busyBesidePolite, form)) return;
  for (Competitor const& each : competitors()) {
    std::string const tail = form + ", 99th percentile" + each.suffix;
    catalogue.measureFigures(
        {{unit, form + ", median" + each.suffix, "ns"}, {unit, tail, "ns"}}, each.who,
        politeMilliseconds,
        [serve = each.serve](std::uint64_t milliseconds) {
          return servePolite(serve, std::min(busyBesidePolite, milliseconds), milliseconds);
        },
        each.backend);
    if (isOurs(each.who)) catalogue.aim({unit, tail, each.who, 3, "libevent"});
  }
}

void addBurst(Catalogue& catalogue) {
  std::string const form = "burst of 4,000 clients";
  if (!canHold(burstClientCount, form)) return;
  for (Competitor const& each : competitors()) {
    catalogue.measureFigures(
        {{unit, form + each.suffix, "CPU ms"}}, each.who, burstClientCount,
        [serve = each.serve](std::uint64_t clients) { return serveBurst(serve, clients); },
        each.backend);
  }
}

void addMemory(Catalogue& catalogue) {
  std::string const form = "memory of an idle connection";
  if (!canHold(idleConnectionCount, form)) return;
  for (Competitor const& each : competitors()) {
    catalogue.measureFigures(
        {{unit, form + each.suffix, "bytes"}}, each.who, idleConnectionCount,
        [serve = each.serve](std::uint64_t count) -> std::vector<double> {
          return {bytesOfIdleConnection(serve, count)};
        },
        each.backend);
  }
}

}  // namespace

bool canHold(std::size_t clients, std::string const& what) {
  if (mayOpenDescriptors(clients + 200)) return true;
  std::cerr << "server: skipped for want of descriptors: " << what << '\n';
  return false;
}

BusyFigures serveBusy(Server const& serve, std::size_t clients, std::uint64_t count) {
  Listener const listener;
  ClientProcess const process(busyClients, listener, clients);
  Connections connections;
  connections.accept(listener, clients);
  Requests requests(clients, count);
  serveToTheEnd(serve, connections.fds(), requests);
  return {requests.cpuSeconds(), requests.reports()};
}

void addServer(Catalogue& catalogue) {
  addBusy(catalogue, 1, "1 client");
  addBusy(catalogue, 50, "50 clients");
  addBusy(catalogue, 500, "500 clients");
  addBusy(catalogue, 2'000, "2,000 clients");
  addPolite(catalogue);
  addBurst(catalogue);
  addIdleSecond(catalogue, unit);
  addMemory(catalogue);

  catalogue.aim({unit, "1 client as root tasks", "brelo-host", 1.1, "libevent"});
  for (char const* clients : {"50 clients", "500 clients"}) {
    std::string const onRoot = std::string(clients) + " as root tasks";
    std::string const inGroup = std::string(clients) + " as group tasks";
    catalogue.aim({unit, onRoot, "brelo-host", 1.25, "libevent"});
    catalogue.aim({unit, onRoot, "brelo-libevent", 1.5, "libevent"});
    catalogue.aim({unit, inGroup, "brelo-host", 1.1, "libevent"});
  }
}

}  // namespace Bench
