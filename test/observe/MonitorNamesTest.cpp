// The names of a monitor: against models, beyond its limit, and where memory or time run out.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloObserve/Monitor.h"
#include "observe/support/MonitorFigures.h"
#include "support/Backend.h"
#include "support/FailingMemory.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using namespace std::chrono_literals;
using Brelo::TaskPriority;
using Brelo::Platform::doEventLoop;
using BreloObserve::Monitor;
using BreloObserve::NameFigures;
using std::chrono::nanoseconds;

class MonitorNamesSuite : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(MonitorNamesSuite);

/// Keeps every sample that a monitor folds.
class Samples : public Brelo::RunObserver {
 public:
  void runEnds(Run const& run) noexcept override {
    used.push_back(run.used.count());
    waited.push_back((run.start - run.request).count());
  }
  std::vector<std::int64_t> used;
  std::vector<std::int64_t> waited;
};

void expectPercentiles(BreloObserve::Histogram const& histogram, std::vector<std::int64_t> sorted) {
  std::sort(sorted.begin(), sorted.end());
  ASSERT_EQ(histogram.count(), sorted.size());
  EXPECT_EQ(histogram.max().count(), sorted.back());
  for (double const share : {0.5, 0.9, 0.99, 0.999}) {
    auto const rank = std::ceil(share * static_cast<double>(sorted.size()));
    auto const exact = static_cast<double>(sorted[static_cast<std::size_t>(rank) - 1]);
    EXPECT_NEAR(static_cast<double>(histogram.percentile(share).count()), exact, exact / 64);
  }
}

TEST_P(MonitorNamesSuite, PercentilesOfRunsAndWaitsAreThoseOfTheSamples) {
  run([] {
    auto const root = newRoot();
    Monitor const monitor(root);
    Samples samples;
    root->runObserverAdd(samples);
    std::vector<std::shared_ptr<WorkTask>> tasks;
    int left = 2000;
    std::mt19937 random(3);
    for (int i = 0; i < 20; ++i) {
      tasks.push_back(workTask(root, std::to_string(i), [&](WorkTask& task) {
        spin(nanoseconds(random() % 8000));
        if (--left > 0) task.scheduleTask();
      }));
      tasks.back()->taskStatsNameIs("all");
      tasks.back()->scheduleTask();
    }
    doEventLoop();
    NameFigures const all = figuresOf(monitor, "root", "all");
    expectPercentiles(all.run, samples.used);
    expectPercentiles(all.wait, samples.waited);
    root->runObserverRemove(samples);
  });
}

// Names come and go at random, more of them than there is room for, with clearings in between.
TEST(MonitorNames, AgreeWithAModel) {
  auto const root = newRoot();
  Monitor monitor(root, {40});
  std::mt19937 random(11);
  std::map<std::string, std::uint64_t> model;  // runs by name
  for (int step = 0; step < 20'000; ++step) {
    auto const name = std::to_string(random() % 60);
    if (random() % 1000 == 0) {
      monitor.clear();
      model.clear();
    }
    if (model.size() < 20 || model.count(name) != 0) {
      workTask(root, name)->taskRunFromTest();
      ++model[name];
    }
    if (step % 500 != 0) continue;
    std::map<std::string, std::uint64_t> counted;
    for (NameFigures const& each : monitor.names())
      counted[each.name] = each.run.count();
    EXPECT_EQ(counted, model) << step;
  }

  // Beyond the limit, what has no place is counted together. The second clearing lets go of what
  // has not run since the first.
  monitor.clear();
  monitor.clear();
  std::vector<std::shared_ptr<WorkTask>> live;
  for (int i = 0; i < 100; ++i) {
    live.push_back(workTask(root, "new " + std::to_string(i)));
    live.back()->taskRunFromTest();
  }
  auto const figures = monitor.names();
  EXPECT_EQ(figures.size(), 41U);
  std::uint64_t runs = 0;
  std::uint64_t tasks = 0;
  for (NameFigures const& each : figures) {
    runs += each.run.count();
    tasks += each.tasks;
  }
  EXPECT_EQ(runs, 100U);
  EXPECT_EQ(tasks, 100U);
  NameFigures const other = figuresOf(monitor, "root", "(other)");
  EXPECT_EQ(other.run.count(), 60U);
  EXPECT_EQ(other.run.count(), other.tasks);
  live.clear();
  monitor.clear();
  EXPECT_TRUE(monitor.names().empty());
  EXPECT_DEATH(Monitor(root, {2'000'000}), "more than 1000000 names");
  EXPECT_DEATH(Monitor(nullptr), "no root");
}

// The tasks run on without their figures, and a document that fails leaves everything as it was.
TEST(MonitorNames, WithoutMemoryRunsAreCountedTogetherOrAsLost) {
  bool failed = true;
  for (unsigned long nth = 1; failed; ++nth) {
    auto const root = newRoot();
    Monitor const monitor(root);
    auto const task = workTask(root, "a name that is not short");
    {
      FailingMemory const memory(nth);
      task->taskRunFromTest();
      failed = memory.failed();
    }
    task->taskRunFromTest();
    std::uint64_t runs = 0;
    for (NameFigures const& each : monitor.names())
      runs += each.run.count();
    EXPECT_GE(runs + monitor.loop().runsLost, 2U) << nth;
  }
  auto const root = newRoot();
  failed = true;
  for (unsigned long nth = 1; failed; ++nth) {
    FailingMemory const memory(nth);
    try {
      Monitor monitor(root);
      std::string const text = monitor.document();
    } catch (std::bad_alloc const&) {
    }
    failed = memory.failed();
  }
  EXPECT_NE(Monitor(root).document().find("\"names\""), std::string::npos);
}

TEST(MonitorNames, TasksAreCountedForHalfAQuantumAtMost) {
  auto const root = newRoot();
  Monitor const monitor(root);
  std::vector<std::shared_ptr<WorkTask>> tasks;
  for (int i = 0; i < 1000; ++i)
    tasks.push_back(workTask(root, std::to_string(i % 5)));
  root->defaultTaskQuantumIs(Brelo::TaskTimeDuration(1));
  auto const hurried = parsed(monitor.document());
  EXPECT_LT(hurried["tasks_counted"].GetUint64(), 1000U);
  EXPECT_EQ(hurried["loop"]["tasks"].GetUint64(), 1000U);
  EXPECT_EQ(hurried["names_total"].GetUint64(), 5U);
  EXPECT_EQ(hurried["names_shown"].GetUint64(), 1U);
  EXPECT_EQ(hurried["rest"]["tasks"].GetUint64() + hurried["names"][0]["tasks"].GetUint64(),
            hurried["tasks_counted"].GetUint64());
  root->defaultTaskQuantumIs(Brelo::TaskTimeDuration::max());
  auto const whole = parsed(monitor.document());
  EXPECT_EQ(whole["tasks_counted"].GetUint64(), 1000U);
  EXPECT_EQ(whole["names_shown"].GetUint64(), 5U);
}

}  // namespace
