// cached: keeps values in memory, for clients that speak memcached's text protocol.
#include <CLI/CLI.hpp>
#include <chrono>
#include <exception>
#include <iostream>
#include <optional>

#include "Brelo/Thread.h"
#include "Brelo/Time.h"
#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/FunctionTimer.h"
#include "BreloDaemon/Listener.h"
#include "BreloObserve/StatsServer.h"
#include "Server.h"

int main(int argc, char** argv) {
  std::string address = "127.0.0.1:11211";
  std::string stats;
  std::string backend = "host";
  std::size_t memory = 64;
  std::size_t connections = 1024;
  unsigned idle = 0;
  CLI::App app{"A cache in memory, for clients that speak memcached's text protocol."};
  app.option_defaults()->always_capture_default();
  app.add_option("--listen", address, "address and port, 0 picks one; or a socket's path");
  app.add_option("--memory", memory, "MiB for what is stored")->check(CLI::Range(1, 1 << 20));
  app.add_option("--connections", connections, "at a time")->check(CLI::PositiveNumber);
  app.add_option("--idle", idle, "seconds after which a silent client is dropped; 0: never");
  app.add_option("--stats", stats, "path of a socket at which brelo sees what it does");
  app.add_option("--backend", backend, "event loop")->check(CLI::IsMember({"host", "libevent"}));
  CLI11_PARSE(app, argc, argv);

  if (backend == "libevent") Brelo::useThreadLocalSingletons();
  try {
    BreloDaemon::Daemon daemon("cached");
    std::optional<BreloObserve::StatsServer> statsServer;
    if (!stats.empty()) statsServer.emplace(daemon.scheduler(), stats);
    Cached::Server server{*daemon.scheduler(), Cached::Cache(memory << 20), Brelo::time()};
    auto const work = [&cache = server.cache](Brelo::TaskImpl& task) {
      cache.timeIs(Brelo::time());
      for (int i = 0; i < 256 && !task.taskShouldYield(); ++i)
        cache.sweep(64);
    };
    BreloDaemon::FunctionTimer sweep(daemon.scheduler(), Brelo::TaskPriority::low, "sweep", work);
    sweep.every(std::chrono::seconds(1));
    BreloDaemon::ListenerOptions options;
    options.connectionsMax = connections;
    options.quantum = std::chrono::milliseconds(10);  // there is little else to do
    auto const accepted = [&](BreloDaemon::Stream& client) {
      if (idle > 0) client.idleLimitIs(std::chrono::seconds(idle));
      server.serve(client);
    };
    BreloDaemon::Listener listener(daemon.scheduler(), address, accepted, options);
    listener.onStop([](BreloDaemon::Stream& client) {
      client.idleLimitIs(std::chrono::seconds(1));  // for what it still reads
      client.close();
    });
    std::cout << "listening on " << listener.addresses().front() << std::endl;
    return daemon.run();
  } catch (std::exception const& error) {
    std::cerr << "cached: " << error.what() << "\n";
    return 1;
  }
}
