#include "Sweeper.h"

#include <utility>

Sweeper::Sweeper(std::shared_ptr<Brelo::TaskScheduler> scheduler, std::chrono::seconds period,
                 std::function<bool()> sweep)
    : TimerTask(std::move(scheduler), Brelo::TaskPriority::low, "sweeper"),
      period_(period),
      sweep_(std::move(sweep)) {}

void Sweeper::start() {
  scheduleTaskDelay(period_);
}

void Sweeper::taskExecute() {
  do {
    taskWorkCountInc(1);
    if (!sweep_()) return scheduleTaskDelay(period_);
  } while (!taskShouldYield());
  scheduleTask();
}
