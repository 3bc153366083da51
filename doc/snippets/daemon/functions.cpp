// The code of doc/daemon/functions.md.
#include <chrono>
#include <memory>
#include <optional>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloDaemon/FunctionTask.h"
#include "BreloDaemon/FunctionTimer.h"
#include "DaemonSnippets.h"

using namespace std::chrono_literals;
using namespace BreloDaemon;
using Brelo::TaskPriority;

void functions() {
  auto const scheduler = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
  int left = 1000;
  int beats = 0;

  FunctionTask sweep(scheduler, TaskPriority::low, "sweep", [&](Brelo::TaskImpl& task) {
    while (left > 0 && !task.taskShouldYield())
      --left;
    if (left > 0) task.scheduleTask();
  });
  sweep.schedule();

  FunctionTimer heartbeat(scheduler, TaskPriority::high, "heartbeat", [&] { ++beats; });
  heartbeat.every(10ms);

  std::optional<FunctionTimer> giveUp;
  giveUp.emplace(scheduler, TaskPriority::normal, "give up", [&] {
    heartbeat.cancel();
    giveUp.reset();
  });
  giveUp->once(35ms);
  Brelo::Platform::doEventLoop();
  if (left != 0 || beats < 1) throw 1;
}
