// wordd: counts the words of what is streamed to it.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "Brelo/Backtrace.h"
#include "Brelo/Debug.h"
#include "Brelo/TaskScheduler.h"
#include "Brelo/Thread.h"
#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/Listener.h"
#include "BreloObserve/StatsServer.h"
#include "Output.h"
#include "Session.h"

namespace {

using BreloDaemon::Daemon;
using BreloDaemon::Listener;
using BreloDaemon::Stream;

struct Options {
  std::uint16_t port = 0;
  double idleSeconds = 60;
  std::size_t clients = 1000;
  std::size_t memory = 256;  // MiB
  std::string backend = "host";
  std::string statsPath;
  std::string trace;
};

void addTo(CLI::App& app, Options& options) {
  app.add_option("--port", options.port, "port to listen on; 0 picks one")->capture_default_str();
  app.add_option("--idle", options.idleSeconds,
                 "seconds after which an idle client is dropped; 0: never")
      ->check(CLI::Range(0.0, 1e9))
      ->capture_default_str();
  app.add_option("--clients", options.clients, "clients at a time; further ones wait")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--memory", options.memory,
                 "MiB for the words of all clients; who needs more is told so")
      ->check(CLI::Range(1, 1 << 20))
      ->capture_default_str();
  app.add_option("--backend", options.backend, "event loop to run on")
      ->check(CLI::IsMember({"host", "libevent"}))
      ->capture_default_str();
  app.add_option("--stats", options.statsPath, "path of a socket at which brelo sees what it does");
  app.add_option("--trace", options.trace, "trace settings, for example TaskScheduler/4+5");
  app.footer(
      "SIGUSR1 prints the statistics, SIGUSR2 the latest exceptions with their backtraces;\n"
      "SIGTERM and SIGINT print the latest events and end the daemon.");
}

/// 0 is never.
std::chrono::nanoseconds asLimit(double seconds) {
  if (seconds == 0) return std::chrono::nanoseconds::max();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(seconds));
}

/// A report that there is no memory for is left out.
template <class Report>
void print(Wordd::Output& output, Report report) {
  std::ostringstream text;
  report(text);
  output.print(text.str());
}

int serve(Options const& options) {
  Daemon daemon("wordd");
  auto const& root = daemon.scheduler();
  Wordd::Output output(root);
  daemon.onStop("history", [&] {
    print(output, [&](std::ostream& out) { root->historyRenderTextForDebug(out); });
  });
  daemon.onSignal(SIGUSR1, [&] {
    print(output,
          [&](std::ostream& out) { root->statsRenderTextForDebug(out, true, false, true, false); });
  });
  daemon.onSignal(SIGUSR2, [&] {
    print(output, [](std::ostream& out) { Brelo::BacktraceTracker::printAll(out); });
  });

  std::optional<BreloObserve::StatsServer> statistics;
  if (!options.statsPath.empty()) statistics.emplace(root, options.statsPath);

  auto const counting =
      Brelo::TaskGroup::TaskGroupIs("counting", Brelo::TaskPriority::low, false, root);
  auto const memory = std::make_shared<Wordd::MemoryBudget>(options.memory << 20);
  BreloDaemon::ListenerOptions clients;
  clients.connectionsMax = options.clients;
  Listener listener(
      root, "127.0.0.1:" + std::to_string(options.port),
      [&](Stream& client) {
        Wordd::Session::begin(client, counting, memory, asLimit(options.idleSeconds));
      },
      clients);
  listener.onStop([](Stream& client) { client.abort(); });
  output.print("listening on " + listener.addresses().front() + "\n");
  return daemon.run();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{
      "Counts the words of text that is streamed to it over TCP on the loopback address. When a\n"
      "client has sent everything, it gets the ten most frequent words, as lines \"count word\"."};
  addTo(app, options);
  CLI11_PARSE(app, argc, argv);

  if (options.backend == "libevent") Brelo::useThreadLocalSingletons();
  if (!options.trace.empty()) Brelo::Platform::setupBreloDebug(options.trace.c_str());
  Brelo::BacktraceTracker::enabledIs(true);
  try {
    return serve(options);
  } catch (std::exception const& error) {
    std::cerr << "wordd: " << error.what() << "\n";
    return 1;
  }
}
