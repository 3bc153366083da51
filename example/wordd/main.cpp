// wordd: counts the words of what is streamed to it.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <iostream>
#include <limits>
#include <memory>
#include <string>

#include "Brelo/Backtrace.h"
#include "Brelo/Debug.h"
#include "Brelo/Platform.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/Thread.h"
#include "Listener.h"
#include "SignalTask.h"
#include "StatsServer.h"

namespace {

struct Options {
  std::uint16_t port = 0;
  double idleSeconds = 60;
  std::string backend = "host";
  std::string statsPath;
  std::string trace;
};

void serve(Options const& options) {
  // A root of our own and not the thread's, which would stay, and its timers with it.
  auto scheduler = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("wordd");
  double const idle =
      options.idleSeconds > 0 ? options.idleSeconds : std::numeric_limits<double>::infinity();
  auto listener = std::make_shared<Wordd::Listener>(scheduler, options.port, idle);
  std::shared_ptr<Wordd::StatsServer> stats;
  if (!options.statsPath.empty()) {
    stats = std::make_shared<Wordd::StatsServer>(scheduler, options.statsPath);
  }
  std::shared_ptr<Wordd::SignalTask> signals;
  auto const onSignal = [&](int number) {
    if (number == SIGUSR1) {
      scheduler->statsRenderTextForDebug(std::cout, true, false, true, false);
      std::cout.flush();
      return;
    }
    if (number == SIGUSR2) return Brelo::BacktraceTracker::printAll(std::cout);
    scheduler->historyRenderTextForDebug(std::cout);
    listener.reset();
    stats.reset();
    signals.reset();
    scheduler.reset();
  };
  signals = std::make_shared<Wordd::SignalTask>(
      scheduler, std::initializer_list<int>{SIGTERM, SIGINT, SIGUSR1, SIGUSR2}, onSignal);
  std::cout << "listening on 127.0.0.1:" << listener->port() << std::endl;
  Brelo::Platform::doEventLoop();  // returns when a signal has left it nothing to wait for
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{
      "Counts the words of text that is streamed to it over TCP on the loopback address. When a\n"
      "client has sent everything, it gets the ten most frequent words, as lines \"count word\"."};
  app.add_option("--port", options.port, "port to listen on; 0 picks one")->capture_default_str();
  app.add_option("--idle", options.idleSeconds,
                 "seconds after which an idle client is dropped; 0: never")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  app.add_option("--backend", options.backend, "event loop to run on")
      ->check(CLI::IsMember({"host", "libevent"}))
      ->capture_default_str();
  app.add_option("--stats", options.statsPath,
                 "Unix socket that answers each connection with the statistics as JSON");
  app.add_option("--trace", options.trace, "trace settings, for example TaskScheduler/4+5");
  app.footer(
      "SIGUSR1 prints the statistics, SIGUSR2 the latest exceptions with their backtraces;\n"
      "SIGTERM and SIGINT print the latest events and end the daemon.");
  CLI11_PARSE(app, argc, argv);

  signal(SIGPIPE, SIG_IGN);  // a peer that has gone is an error of the write, stdout's included
  if (options.backend == "libevent") Brelo::useThreadLocalSingletons();
  if (!options.trace.empty()) Brelo::Platform::setupBreloDebug(options.trace.c_str());
  Brelo::BacktraceTracker::enabledIs(true);
  try {
    serve(options);
  } catch (std::exception const& error) {
    std::cerr << "wordd: " << error.what() << "\n";
    return 1;
  }
}
