// A timer with a period that does not drift, and how to stop it.
//
//   build/release/example/periodic_timer
//
// Each run comes a little late and takes a while. The times are those of a grid that begins with
// the series, so neither adds up.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

#include "Brelo/TaskSchedulerRoot.h"
#include "BreloDaemon/FunctionTimer.h"

using namespace std::chrono_literals;

int main() {
  double const start = Brelo::time();
  BreloDaemon::FunctionTimer timer(
      Brelo::schedulerRootBrelo(), Brelo::TaskPriority::normal, "tick", [&] {
        double const periods = (Brelo::time() - start) / 0.05;
        double const number = std::floor(periods);
        std::printf("run %.0f: %.3f ms after its time\n", number, (periods - number) * 50);
        std::this_thread::sleep_for(10ms);  // the work
        if (number < 10) return;
        timer.cancel();
        std::printf("stopped\n");
      });
  timer.every(50ms);
  Brelo::Platform::doEventLoop();
}
