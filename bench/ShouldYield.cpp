// The question that a task asks in its inner loop, beside the clock read that it saves.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <memory>

#include "Brelo/Platform.h"
#include "Brelo/Task.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Catalogue.h"
#include "Run.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr std::uint64_t questions = 2'000'000;

/// Asks throughout one run, well within its quantum.
class AskingTask : public Brelo::Task {
 public:
  AskingTask(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, std::uint64_t count)
      : Task(scheduler, Brelo::TaskPriority::normal, "bench"), count_(count) {
    taskQuantumIs(Brelo::TaskTimeDuration(1'000'000'000));
  }

  void taskExecute() override {
    Run run(count_);
    do {
      benchmark::DoNotOptimize(taskShouldYield());
    } while (!run.finished());
    seconds_ = run.seconds();
  }
  double seconds() const { return seconds_; }

 private:
  std::uint64_t count_;
  double seconds_ = 0;
};

double ask(std::uint64_t count) {
  auto const root = Brelo::schedulerRootBreloNonShared("bench");
  auto const task = std::make_shared<AskingTask>(root, count);
  task->scheduleTask();
  Brelo::Platform::doEventLoop();
  return task->seconds();
}

double readClock(std::uint64_t count) {
  Run run(count);
  do {
    benchmark::DoNotOptimize(std::chrono::steady_clock::now());
  } while (!run.finished());
  return run.seconds();
}

}  // namespace

void addShouldYield(Catalogue& catalogue) {
  catalogue.measure("should yield", "1 task", "brelo", questions, ask);
  catalogue.measure("should yield", "1 task", "steady-clock", questions, readClock);
}

}  // namespace Bench
