// The code of doc/observe/stalls.md.
#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloDaemon/FunctionTask.h"
#include "BreloObserve/StallDetector.h"
#include "ObserveSnippets.h"

using namespace std::chrono_literals;

void stalls() {
  auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("main");

  BreloObserve::StallDetectorOptions options;
  options.limit = 20ms;
  BreloObserve::StallDetector detector(root, options);

  detector.onStall([](BreloObserve::Stall const& stall) {
    bool const blocked = stall.cpu < stall.length / 2;
    std::cout << stall.name << (blocked ? " was blocked in " : " was busy in ")
              << stall.frames.front().function << '\n';
  });

  BreloDaemon::FunctionTask sleeper(root, Brelo::TaskPriority::normal, "sleeper",
                                    [] { std::this_thread::sleep_for(50ms); });
  sleeper.schedule();
  Brelo::Platform::doEventLoop();
  if (detector.caught() == 0) std::cout << "the machine is too busy to tell\n";
}
