// The code of doc/observe/monitor.md.
#include <chrono>
#include <string>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloDaemon/FunctionTask.h"
#include "BreloObserve/Monitor.h"
#include "ObserveSnippets.h"

using namespace std::chrono_literals;
using Brelo::TaskPriority;
using BreloDaemon::FunctionTask;

void monitors() {
  auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("main");

  BreloObserve::Monitor monitor(root);

  FunctionTask client(root, TaskPriority::normal, "client 10.0.0.1:4711", [] {});
  client.task().taskStatsNameIs("client");
  client.schedule();
  Brelo::Platform::doEventLoop();

  BreloObserve::MonitorRequest request;
  request.top = 10;
  request.sort = "wait_p99_ns";
  std::string const document = monitor.document(request);

  BreloObserve::Histogram waits;
  for (BreloObserve::NameFigures const& each : monitor.names())
    waits.merge(each.wait);
  bool const late = waits.percentile(0.99) > 50ms;
  auto const loop = monitor.loop();
  bool const loaded = loop.running > loop.length * 9 / 10;

  if (document.find("\"client\"") == std::string::npos || waits.count() != 1) throw 1;
  if (late && loaded) monitor.clear();
}
