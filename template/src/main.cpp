// @NAME@: a daemon on libZelBrelo.
//
//   @NAME@ [ADDRESS [STATS_SOCKET]]     e.g. @NAME@ 127.0.0.1:7000 /tmp/@NAME@.sock
//
// Answers each line with the same line. Asked with `brelo top /tmp/@NAME@.sock` it says what it
// does.
#include <chrono>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <string_view>

#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/Listener.h"
#include "BreloDaemon/StopStep.h"
#include "BreloObserve/StatsServer.h"
#include "Sweeper.h"

using namespace std::chrono_literals;

/// How much of `bytes` is whole lines, which go back to where they came from.
std::size_t answer(BreloDaemon::Stream& client, std::string_view bytes) {
  auto const end = bytes.rfind('\n');
  if (end == std::string_view::npos) return 0;
  client.send(bytes.substr(0, end + 1));
  return end + 1;
}

int main(int argc, char** argv) try {
  BreloDaemon::Daemon daemon("@NAME@");
  std::optional<BreloObserve::StatsServer> stats;
  if (argc > 2) stats.emplace(daemon.scheduler(), argv[2]);

  BreloDaemon::Listener listener(
      daemon.scheduler(), argc > 1 ? argv[1] : "127.0.0.1:7000", [](BreloDaemon::Stream& client) {
        client.idleLimitIs(60s);
        client.receive([&client](std::string_view bytes) { return answer(client, bytes); });
      });

  int piece = 0;
  auto sweeper =
      std::make_shared<Sweeper>(daemon.scheduler(), 60s, [&] { return ++piece % 10 != 0; });
  sweeper->start();
  daemon.onStop("sweeper", [&] { sweeper.reset(); });

  std::cout << "listening on " << listener.addresses().front() << std::endl;
  return daemon.run();
} catch (std::exception const& error) {
  std::cerr << "@NAME@: " << error.what() << "\n";
  return 1;
}
