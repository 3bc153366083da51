// The code of doc/daemon/service.md.
#include <chrono>

#include "Brelo/TaskSchedulerRoot.h"
#include "BreloDaemon/ServiceNotify.h"
#include "DaemonSnippets.h"

using namespace std::chrono_literals;

void serviceManager() {
  auto const scheduler = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");

  BreloDaemon::ServiceNotify service;
  service.feedWatchdog(scheduler, Brelo::TaskPriority::low);
  service.extendTimeout(30s);
  // ... a long start ...
  service.ready();
  service.status("serving 12 clients");
}
