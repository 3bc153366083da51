// A client's program that takes a little from each floor of the library: what inline code of the
// headers refers to, the host runtime included, has to be found by the client's own link.
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>

#include "Brelo/Exception.h"
#include "Brelo/FdToStream.h"
#include "Brelo/TaskGroup.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/TimerTask.h"
#include "Brelo/TimerWheel.h"
#include "Zel/Trace.h"

namespace {

class Countdown : public Brelo::TimerTask {
 public:
  using TimerTask::TimerTask;
  void taskExecute() override {
    if (--left_ > 0) return scheduleTaskDelay(0.001);
    throw Brelo::RuntimeException("the countdown is over");
  }

 private:
  int left_ = 3;
};

struct WheelEvent : Brelo::TimerWheelEvent {
  void timeout() override { fired = true; }
  bool fired = false;
};

}  // namespace

int main() {
  Zel::Entity::singletonIs<Zel::TraceFacilityMan>()->doReadEnvironment();
  WheelEvent event;
  event.setTimeout(Brelo::getTimerWheel(), 0.0001);
  auto const group = Brelo::TaskGroup::TaskGroupIs("group", Brelo::TaskPriority::normal, false,
                                                   Brelo::schedulerRootBrelo());
  auto const countdown =
      std::make_shared<Countdown>(group, Brelo::TaskPriority::normal, "countdown");
  countdown->scheduleTask();
  try {
    Brelo::Platform::doEventLoop();
  } catch (Brelo::RuntimeException const& exception) {
    bool const mine = exception.msg().find("the countdown is over") != std::string::npos;
    Brelo::FdToStream(STDOUT_FILENO, false)
        << "consumer: " << (mine && event.fired ? "done" : "wrong") << std::endl;
    return 0;
  }
  return 1;
}
