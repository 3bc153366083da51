// The code of doc/daemon/daemon.md.
#include <signal.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <string>

#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/FunctionTimer.h"
#include "BreloDaemon/StopStep.h"
#include "DaemonSnippets.h"

using namespace std::chrono_literals;

namespace {

/// Writes what it has got before the daemon ends.
class Journal {
 public:
  explicit Journal(std::shared_ptr<Brelo::TaskScheduler> const& scheduler)
      : written_(scheduler, Brelo::TaskPriority::low, "journal", [this] { stop_.done(); }),
        stop_("journal", nullptr, [this] { written_.once(1ms); }) {}

 private:
  BreloDaemon::FunctionTimer written_;
  BreloDaemon::StopStep stop_;  // after the timer: asked to stop before it
};

int run() {
  BreloDaemon::Daemon daemon("mydaemon");
  daemon.onSignal(SIGHUP, [&] {
    daemon.service().reloading();
    // ... reads its settings anew ...
    daemon.service().ready();
  });
  daemon.onStop("last words", [] { std::cout << "good bye\n"; });

  Journal const journal(daemon.scheduler());
  daemon.exceptionHandlerIs([](Brelo::_TaskBase* task) {
    std::cerr << (task != nullptr ? task->taskName() : "a handler") << " has failed\n";
    return true;  // goes on
  });
  daemon.stop();
  return daemon.run();
}

}  // namespace

void daemonFrame() {
  if (run() != 0) throw 1;
}
