// The code of doc/observe/server.md.
#include "BreloObserve/StatsServer.h"

#include <unistd.h>

#include <string>

#include "BreloDaemon/Daemon.h"
#include "BreloObserve/Monitor.h"
#include "ObserveSnippets.h"

using namespace std::chrono_literals;
using BreloDaemon::Daemon;

void statsServer() {
  std::string const path = "/tmp/brelo-snippet-" + std::to_string(::getpid());
  {
    Daemon daemon("cached");
    BreloObserve::StatsServer stats(daemon.scheduler(), path);

    daemon.stop();
    if (stats.address() != "unix:" + path || daemon.run() != 0) throw 1;
  }

  Daemon daemon("cached");
  BreloObserve::Monitor monitor(daemon.scheduler());
  BreloObserve::StatsServerOptions options;
  options.unixMode = 0660;
  options.group = ::getgid();
  options.monitor = &monitor;
  options.makesStallDetector = false;
  options.traceChanges = false;
  BreloObserve::StatsServer stats(daemon.scheduler(), path, options);

  daemon.stop();
  if (daemon.run() != 0) throw 1;
}
