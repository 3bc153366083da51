#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Brelo/TimerTask.h"

namespace Wordd {

/// Calls a function each time it runs. The function may give up the last owner of the timeout.
class Timeout : public Brelo::TimerTask {
 public:
  Timeout(std::shared_ptr<Brelo::TaskScheduler> scheduler, std::string name,
          std::function<void()> expired)
      : TimerTask(std::move(scheduler), Brelo::TaskPriority::normal, std::move(name)),
        expired_(std::move(expired)) {}

  void taskExecute() override { expired_(); }

 private:
  std::function<void()> expired_;
};

}  // namespace Wordd
