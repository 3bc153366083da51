// A task of a group that schedules itself: the group's slice goes on without the event loop.

#include <event2/event.h>
#include <event2/event_struct.h>

#include <cstdint>
#include <memory>

#include "Accounting.h"
#include "Brelo/Platform.h"
#include "Brelo/TaskGroup.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Catalogue.h"
#include "Passes.h"
#include "RepeatingTask.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr std::uint64_t runs = 500'000;

double groupRuns(std::uint64_t count) {
  auto const root = Brelo::schedulerRootBreloNonShared("bench");
  auto const group =
      Brelo::TaskGroup::TaskGroupIs("group", Brelo::TaskPriority::normal, false, root);
  auto const task = std::make_shared<RepeatingTask>(group, count);
  task->scheduleTask();
  Brelo::Platform::doEventLoop();
  return task->seconds();
}

/// An event that makes itself active runs again in the same pass: like a slice, it does not poll.
double libeventActivations(std::uint64_t count) {
  struct Activation {
    explicit Activation(std::uint64_t activations) : run(activations) {}
    void call() {
      work.begin();
      if (!run.finished()) event_active(&self, EV_TIMEOUT, 0);
      work.end();
    }
    event self;
    Accounting work;
    Run run;
  };
  LibeventBase const base = makeLibeventBase(libeventPlain);
  Activation activation(count);
  event_assign(
      &activation.self, base.get(), -1, 0,
      [](evutil_socket_t, short, void* self) { static_cast<Activation*>(self)->call(); },
      &activation);
  event_active(&activation.self, EV_TIMEOUT, 0);
  event_base_dispatch(base.get());
  return activation.run.seconds();
}

}  // namespace

void addGroupRun(Catalogue& catalogue) {
  catalogue.measure("group run", "1 task", "brelo", runs, groupRuns);
  catalogue.measure("group run", "1 task", "libevent", runs, libeventActivations);
  catalogue.measure("group run", "1 task", "asio", runs / 5, asioPasses<Accounting>);
  catalogue.aim({"group run", "1 task", "brelo", 1.0, "asio"});
}

}  // namespace Bench
