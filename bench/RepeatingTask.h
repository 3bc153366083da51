#pragma once

#include <cstdint>
#include <memory>

#include "Brelo/Task.h"
#include "IdleWatch.h"
#include "Run.h"

namespace Bench {

/// Schedules itself until its run is finished, on a loop that polls.
class RepeatingTask : public Brelo::Task {
 public:
  RepeatingTask(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, std::uint64_t count)
      : Task(scheduler, Brelo::TaskPriority::normal, "bench"), run_(count) {}

  void taskExecute() override {
    if (run_.finished()) {
      watch_.end();
    } else {
      scheduleTask();
    }
  }
  double seconds() const { return run_.seconds(); }

 private:
  IdleWatch watch_;
  Run run_;
};

}  // namespace Bench
