// The code of doc/daemon/signals.md.
#include <signal.h>

#include <iostream>

#include "Brelo/Platform.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "BreloDaemon/SignalTask.h"
#include "DaemonSnippets.h"

void signalsAsRuns() {
  auto const scheduler = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");

  BreloDaemon::SignalTask const signals(scheduler, Brelo::TaskPriority::high, "signals",
                                        {SIGUSR1, SIGHUP}, [](signalfd_siginfo const& signal) {
                                          std::cout << "signal " << signal.ssi_signo << " of "
                                                    << signal.ssi_pid << '\n';
                                        });

  raise(SIGHUP);
  Brelo::Platform::doEventLoop(0.01);
}
