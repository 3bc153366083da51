#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "Brelo/TimerTask.h"

/// Calls `sweep` at each multiple of a period, in slices: `sweep` does a piece of the work and says
/// whether there is more. A slice ends with the task's quantum, and everything else has its turn
/// before the next one.
class Sweeper : public Brelo::TimerTask {
 public:
  Sweeper(std::shared_ptr<Brelo::TaskScheduler> scheduler, std::chrono::seconds period,
          std::function<bool()> sweep);

  void start();  ///< the first sweep is due after one period

  void taskExecute() override;

 private:
  std::chrono::seconds const period_;
  std::function<bool()> const sweep_;
};
