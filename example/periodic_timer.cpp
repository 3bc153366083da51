// A timer with a period that does not drift, and how to stop it.
//
//   build/release/example/periodic_timer
//
// Each run comes a little late and takes a while. The next one is planned from the start of the
// whole series and not from now, so neither adds up.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "Brelo/Task.h"
#include "Brelo/TaskSchedulerRoot.h"

class PeriodicTask : public Brelo::TimerTask {
 public:
  /// What a run is told: its number, from 1, and how many seconds after its time it comes.
  using Tick = std::function<void(unsigned long number, double late)>;

  PeriodicTask(std::shared_ptr<Brelo::TaskScheduler> scheduler, std::string name, double seconds,
               Tick tick)
      : TimerTask(std::move(scheduler), Brelo::TaskPriority::normal, std::move(name)),
        period_(seconds),
        tick_(std::move(tick)) {
    scheduleTaskDelay(period_);
  }

  void taskExecute() override {
    double const elapsed = Brelo::time() - start_;
    auto const number = number_;
    auto const passed = static_cast<unsigned long>(elapsed / period_);
    number_ = std::max(number, passed) + 1;  // a period that was missed is left out
    scheduleTaskDelay(static_cast<double>(number_) * period_ - elapsed);
    tick_(number, elapsed - static_cast<double>(number) * period_);  // last: it may stop the timer
  }

 private:
  double const period_;  // seconds
  Tick const tick_;
  double const start_ = Brelo::time();
  unsigned long number_ = 1;  // of the run that is planned
};

int main() {
  std::shared_ptr<PeriodicTask> timer;
  auto const tick = [&timer](unsigned long number, double late) {
    std::printf("run %lu: %.3f ms after its time\n", number, late * 1e3);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // the work
    if (number < 10) return;
    timer->stopTimerTask();
    std::printf("stopped\n");
  };
  timer = std::make_shared<PeriodicTask>(Brelo::schedulerRootBrelo(), "tick", 0.05, tick);
  Brelo::Platform::doEventLoop();
}
