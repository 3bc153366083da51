// wordd: counts the words of what is streamed to it.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <iostream>
#include <limits>
#include <string>

#include "Brelo/Backtrace.h"
#include "Brelo/Debug.h"
#include "Brelo/Thread.h"
#include "Checked.h"
#include "Daemon.h"

namespace {

struct Options {
  std::uint16_t port = 0;
  double idleSeconds = 60;
  std::size_t clients = 1000;
  std::size_t memory = 256;  // MiB
  std::string backend = "host";
  std::string statsPath;
  double statsSeconds = 10;
  std::string trace;
};

void addTo(CLI::App& app, Options& options) {
  app.add_option("--port", options.port, "port to listen on; 0 picks one")->capture_default_str();
  app.add_option("--idle", options.idleSeconds,
                 "seconds after which an idle client is dropped; 0: never")
      ->check(CLI::NonNegativeNumber)
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
  app.add_option("--stats", options.statsPath,
                 "Unix socket that answers each connection with the statistics as JSON");
  app.add_option("--stats-seconds", options.statsSeconds,
                 "seconds in which they are to be read; 0: any")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  app.add_option("--trace", options.trace, "trace settings, for example TaskScheduler/4+5");
  app.footer(
      "SIGUSR1 prints the statistics, SIGUSR2 the latest exceptions with their backtraces;\n"
      "SIGTERM and SIGINT print the latest events and end the daemon.");
}

double orForEver(double seconds) {
  return seconds > 0 ? seconds : std::numeric_limits<double>::infinity();
}

/// What is opened from here on is none of the three, however we were started.
void openStandardDescriptors() {
  int fd = 0;
  while (fd <= STDERR_FILENO)
    fd = Wordd::checked(::open("/dev/null", O_RDWR), "/dev/null");
  ::close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{
      "Counts the words of text that is streamed to it over TCP on the loopback address. When a\n"
      "client has sent everything, it gets the ten most frequent words, as lines \"count word\"."};
  addTo(app, options);
  CLI11_PARSE(app, argc, argv);

  signal(SIGPIPE, SIG_IGN);  // a peer that has gone is an error of the write, stdout's included
  if (options.backend == "libevent") Brelo::useThreadLocalSingletons();
  if (!options.trace.empty()) Brelo::Platform::setupBreloDebug(options.trace.c_str());
  Brelo::BacktraceTracker::enabledIs(true);
  try {
    openStandardDescriptors();
    Wordd::Daemon daemon({options.port,
                          {orForEver(options.idleSeconds), options.clients, options.memory << 20},
                          options.statsPath,
                          orForEver(options.statsSeconds)});
    daemon.run();
  } catch (std::exception const& error) {
    std::cerr << "wordd: " << error.what() << "\n";
    return 1;
  }
}
