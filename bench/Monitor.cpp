// What a monitor and a stall detector cost: each run, beside the same runs without them, and the
// monitor's document, which holds the loop.

#include "BreloObserve/Monitor.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TaskGroup.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "BreloObserve/StallDetector.h"
#include "Catalogue.h"
#include "RepeatingTask.h"
#include "Units.h"

namespace Bench {

namespace {

using Brelo::TaskPriority;
using BreloObserve::Monitor;
using BreloObserve::StallDetector;

constexpr std::uint64_t passes = 100'000;
constexpr unsigned pieces = 20;
constexpr std::uint64_t groupRuns = 1'000'000;

/// One task that runs on the root, or inside a group that holds the loop until it is done.
template <class Observer>
double runs(std::uint64_t count, bool observed, bool inGroup) {
  auto const root = Brelo::schedulerRootBreloNonShared("bench");
  std::optional<Observer> observer;
  if (observed) observer.emplace(root);
  auto const group = Brelo::TaskGroup::TaskGroupIs("group", TaskPriority::normal, false, root);
  group->taskGroupQuantumNoCheckIs(Brelo::TaskTimeDuration::max());
  std::shared_ptr<Brelo::TaskScheduler> const scheduler =
      inGroup ? std::static_pointer_cast<Brelo::TaskScheduler>(group) : root;
  auto const task = std::make_shared<RepeatingTask>(scheduler, count);
  task->scheduleTask();
  Brelo::Platform::doEventLoop();
  return task->seconds();
}

class QuietTask : public Brelo::Task {
 public:
  using Task::Task;
  void taskExecute() override {}
};

/// For how long a document of so many tasks, all of which have run, holds the loop.
double document(std::uint64_t tasks, std::uint64_t names) {
  auto const root = Brelo::schedulerRootBreloNonShared("bench");
  Monitor const monitor(root);
  std::vector<std::shared_ptr<QuietTask>> all;
  for (std::uint64_t i = 0; i < tasks; ++i) {
    all.push_back(std::make_shared<QuietTask>(root, TaskPriority::normal, std::to_string(i)));
    all.back()->taskStatsNameIs("session of kind " + std::to_string(i % names));
    all.back()->taskRunFromTest();
  }
  Run run(1);
  benchmark::DoNotOptimize(monitor.document());
  run.finished();
  return run.seconds();
}

template <class Observer>
void addRuns(Catalogue& catalogue, std::string const& unit, std::string const& form,
             std::uint64_t count, bool inGroup, Backend backend) {
  for (bool const observed : {true, false}) {
    catalogue.measure(
        unit, form, observed ? "brelo" : "without", count,
        [=](std::uint64_t operations) { return runs<Observer>(operations, observed, inGroup); },
        backend, pieces);
  }
}

void addDocument(Catalogue& catalogue, std::string const& form, std::uint64_t tasks,
                 std::uint64_t names, double limit) {
  std::string const unit = "monitor document";
  catalogue.measure(unit, form, "brelo", 1, [=](std::uint64_t) { return document(tasks, names); });
  catalogue.aim({unit, form, "brelo", limit, ""});
}

}  // namespace

void addMonitor(Catalogue& catalogue) {
  for (Backend const backend : BreloTest::backends) {
    std::string const form = "1 task on " + toString(backend);
    addRuns<Monitor>(catalogue, "monitor", form, passes, false, backend);
    catalogue.aim({"monitor", form, "brelo", 1.1, "without"});
    addRuns<StallDetector>(catalogue, "stall detector", form, passes, false, backend);
    catalogue.aim({"stall detector", form, "brelo", 1.01, "without"});
  }
  addRuns<Monitor>(catalogue, "monitor", "1 task in a group", groupRuns, true, Backend::host);
  addDocument(catalogue, "10,000 tasks, 100 names", 10'000, 100, 2e6);
  addDocument(catalogue, "100,000 tasks, 500 names", 100'000, 500, 20e6);
}

}  // namespace Bench
