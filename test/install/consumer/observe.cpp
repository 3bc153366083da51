// A client's daemon that tells what it does: what it needs has to be found by its own link.
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <string>

#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/FunctionTimer.h"
#include "BreloObserve/Monitor.h"
#include "BreloObserve/StatsServer.h"

using namespace std::chrono_literals;

int main() {
  BreloDaemon::Daemon daemon("consumer");
  BreloObserve::StatsServer stats(daemon.scheduler(),
                                  "/tmp/brelo-consumer-" + std::to_string(::getpid()) + ".sock");
  BreloObserve::Monitor monitor(daemon.scheduler());
  BreloDaemon::FunctionTimer timer(daemon.scheduler(), Brelo::TaskPriority::normal, "timer",
                                   [&] { daemon.stop(); });
  timer.once(1ms);
  int const status = daemon.run();
  bool const told = monitor.document().find("\"timer\"") != std::string::npos;
  std::cout << (status == 0 && told ? "consumer: done\n" : "consumer: wrong\n");
  return status;
}
