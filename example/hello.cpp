// The smallest program: a task and a timer task. It exits by itself.
#include <iostream>
#include <memory>

#include "Brelo/Task.h"
#include "Brelo/TaskSchedulerRoot.h"

class Greeting : public Brelo::Task {
 public:
  using Task::Task;
  void taskExecute() override { std::cout << "hello from a task\n"; }
};

class Countdown : public Brelo::TimerTask {
 public:
  using TimerTask::TimerTask;
  void taskExecute() override {
    std::cout << left_ << " left\n";
    if (--left_ > 0) scheduleTaskDelay(0.1);
  }

 private:
  int left_ = 3;
};

int main() {
  auto const scheduler = Brelo::schedulerRootBrelo();
  auto const countdown =
      std::make_shared<Countdown>(scheduler, Brelo::TaskPriority::normal, "countdown");
  auto const greeting = std::make_shared<Greeting>(scheduler, Brelo::TaskPriority::low, "greeting");
  countdown->scheduleTaskDelay(0.1);
  greeting->scheduleTask();
  Brelo::Platform::doEventLoop();  // returns when nothing is left to wait for
}
