#include <chrono>
#include <cstdlib>
#include <memory>
#include <utility>

#include "Brelo/Task.h"
#include "Brelo/TaskControl.h"
#include "Brelo/TaskGroup.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Snippets.h"

using namespace Brelo;

namespace {

struct Store {
  bool compactOne() { return --garbage > 0; }
  int garbage = 1000;
};

class Compact : public Task {
 public:
  Compact(std::shared_ptr<TaskScheduler> scheduler, Store& store)
      : Task(std::move(scheduler), TaskPriority::low, "compact"), store_(store) {}

  void taskExecute() override {
    while (store_.compactOne()) {
      taskWorkCountInc(1);
      if (taskShouldYield()) return scheduleTask();
    }
  }

 private:
  Store& store_;
};

class Indexer : public TimerTask {
 public:
  explicit Indexer(std::shared_ptr<TaskScheduler> scheduler)
      : TimerTask(std::move(scheduler), TaskPriority::normal, "indexer") {}
  void taskExecute() override { ++runs; }
  int runs = 0;
};

class Client : public Platform::TimeoutHandler {
 public:
  explicit Client(std::shared_ptr<TaskScheduler> const& scheduler)
      : timer_(Platform::getTimerControl(this, scheduler, TaskPriority::normal, "refresh")) {
    timer_->setTimeout(0.001);
  }
  void timeout() override { ++refreshed; }
  int refreshed = 0;

 private:
  std::shared_ptr<Platform::TimerControl> timer_;
};

void expect(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

void tasks() {
  Store store;
  auto const compact = std::make_shared<Compact>(schedulerRootBrelo(), store);
  compact->scheduleTask();
  Platform::doEventLoop();
  expect(store.garbage == 0);
}

void timers() {
  auto const task = std::make_shared<Indexer>(TaskSchedulerRoot::TaskSchedulerRootIs("timers"));
  task->scheduleTaskDelay(std::chrono::milliseconds(250));      // instead of whatever was pending
  task->scheduleTaskDelay(std::chrono::duration<double>(0.2));  // instead of that
  task->scheduleTaskLowestDelay(0.001);                         // no later than that
  Platform::doEventLoop();
  expect(task->runs == 1);
  task->scheduleTaskJitterUp(60.0, 10);  // 60 to 66 s
  task->stopTimerTask();
  expect(!task->taskScheduled());
}

void groups() {
  auto const indexers =
      TaskGroup::TaskGroupIs("indexers", TaskPriority::low, false, schedulerRootBrelo());
  indexers->taskGroupQuantumIs(std::chrono::milliseconds(5));
  auto const indexer = std::make_shared<Indexer>(indexers);
  indexer->scheduleTask();
  Platform::doEventLoop();
  expect(indexer->runs == 1);
}

void taskControls() {
  Client client(schedulerRootBrelo());
  Platform::doEventLoop();
  expect(client.refreshed == 1);
}
