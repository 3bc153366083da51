// The window of a monitor: clearings, the shares of the loop, and what comes and goes amid a run.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "Brelo/Platform.h"
#include "Brelo/TaskGroup.h"
#include "Brelo/TaskScheduler.h"
#include "Brelo/TimerTask.h"
#include "BreloObserve/Monitor.h"
#include "observe/support/MonitorFigures.h"
#include "support/Backend.h"
#include "support/SkipTime.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using namespace std::chrono_literals;
using Brelo::TaskPriority;
using Brelo::Platform::doEventLoop;
using BreloObserve::LoopFigures;
using BreloObserve::Monitor;
using BreloObserve::NameFigures;
using std::chrono::nanoseconds;

class MonitorWindowSuite : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(MonitorWindowSuite);

double seconds(nanoseconds length) {
  return std::chrono::duration<double>(length).count();
}

TEST_P(MonitorWindowSuite, ClearedWithTheRootsStatisticsAndAmidARun) {
  run([] {
    auto const root = newRoot();
    Monitor monitor(root);
    auto const runs = workTask(root, "runs", [](WorkTask& task) { task.taskWorkCountInc(3); });
    auto const idle = workTask(root, "idle");
    runs->taskRunFromTest();
    {
      auto const ends = Brelo::TaskGroup::TaskGroupIs("g", TaskPriority::normal, false, root);
      workTask(ends, "ends")->taskRunFromTest();
      ends->clearStats();
    }
    EXPECT_EQ(monitor.loop().clearings, 0U);
    EXPECT_EQ(namesOf(monitor), (Names{"g/ends", "root/idle", "root/runs"}));
    root->clearStats();
    EXPECT_EQ(monitor.loop().clearings, 1U);
    EXPECT_EQ(namesOf(monitor), (Names{"root/idle", "root/runs"}));
    EXPECT_EQ(figuresOf(monitor, "root", "runs").run.count(), 0U);
    EXPECT_EQ(monitor.loop().running, 0ns);

    // Of a run that a clearing divides only the second part is used in the window.
    auto group = Brelo::TaskGroup::TaskGroupIs("g", TaskPriority::normal, false, root);
    auto clears = workTask(group, "clears", [&](WorkTask&) {
      spin(20ms);
      auto const beforeClearing = std::chrono::steady_clock::now();
      monitor.clear();
      spin(2ms);
      nanoseconds const running = monitor.loop().running;
      EXPECT_GE(running, 2ms);
      EXPECT_LE(running, std::chrono::steady_clock::now() - beforeClearing);
      NameFigures const present = figuresOf(monitor, "g", "clears");
      EXPECT_EQ(present.run.count(), 0U);
      EXPECT_GE(present.used, 2ms);
      EXPECT_LE(present.used, figuresOf(monitor, "root", "TaskGroup;g").used);
    });
    clears->scheduleTask();
    doEventLoop();
    LoopFigures const loop = monitor.loop();
    EXPECT_GE(loop.running, 2ms);
    EXPECT_LE(loop.running, loop.length);
    EXPECT_EQ(loop.clearings, 2U);
    NameFigures const divided = figuresOf(monitor, "g", "clears");
    EXPECT_EQ(divided.run.count(), 1U);
    EXPECT_GE(divided.run.max(), 22ms) << "a run is as long as it is";
    EXPECT_GE(divided.used, 2ms);
    EXPECT_LE(divided.used, loop.running);

    group.reset();
    clears.reset();
    auto const works = workTask(root, "works", [&](WorkTask& task) {
      task.taskWorkCountInc(4);
      root->clearStats();
      task.taskWorkCountInc(5);
    });
    works->taskRunFromTest();
    EXPECT_EQ(figuresOf(monitor, "root", "works").work, 5U)
        << "the task's figures were zeroed, too";
  });
}

// One is made in a run and one ends in one; both hear of the same runs, also of those that throw.
TEST_P(MonitorWindowSuite, SeveralComeAndGoAmidRunsThatThrow) {
  run([] {
    auto const root = newRoot();
    std::optional<Monitor> first(std::in_place, root);
    std::optional<Monitor> second;
    auto const makes = workTask(root, "makes", [&](WorkTask&) {
      spin(5ms);
      second.emplace(root);
      spin(1ms);
    });
    makes->scheduleTask();
    doEventLoop();
    EXPECT_GE(figuresOf(*first, "root", "makes").used, 6ms);
    NameFigures const half = figuresOf(*second, "root", "makes");
    EXPECT_EQ(half.run.count(), 1U);
    EXPECT_GE(half.used, 1ms);
    EXPECT_LE(half.used, second->loop().length);

    auto const throws = workTask(root, "throws", [](WorkTask&) {
      spin(1ms);
      throw std::runtime_error("no");
    });
    throws->scheduleTask();
    EXPECT_THROW(doEventLoop(), std::runtime_error);
    NameFigures const thrown = figuresOf(*first, "root", "throws");
    EXPECT_EQ(thrown.run.count(), 1U);
    EXPECT_GE(thrown.used, 1ms);
    EXPECT_EQ(thrown.used, figuresOf(*second, "root", "throws").used);

    auto const ends = workTask(root, "ends", [&](WorkTask&) { first.reset(); });
    ends->taskRunFromTest();
    EXPECT_EQ(figuresOf(*second, "root", "ends").run.count(), 1U);
    second.reset();
    ends->taskRunFromTest();
  });
}

// A group that ends in its own slice is still a group, and its last runs are counted.
TEST_P(MonitorWindowSuite, GroupEndsInItsSlice) {
  run([] {
    auto const root = newRoot();
    Monitor const monitor(root);
    auto group = Brelo::TaskGroup::TaskGroupIs("g", TaskPriority::normal, false, root);
    auto last = workTask(group, "last");
    last->work = [&](WorkTask&) {
      group.reset();
      last.reset();
    };
    last->scheduleTask();
    group->requestSchedulerRun();
    doEventLoop();
    EXPECT_EQ(namesOf(monitor), (Names{"g/last", "root/TaskGroup;g"}));
    EXPECT_TRUE(figuresOf(monitor, "root", "TaskGroup;g").isGroup);
    EXPECT_EQ(figuresOf(monitor, "g", "last").parentGroup, "root");
    EXPECT_EQ(figuresOf(monitor, "g", "last").tasks, 0U);
  });
}

TEST_P(MonitorWindowSuite, SharesOfTheLoopAddUp) {
  run([host = GetParam() == Backend::host] {
    auto const root = newRoot();
    Monitor const monitor(root);
    int left = 3;
    auto const beats =
        std::make_shared<WorkTimer>(root, TaskPriority::normal, "beats", [&](WorkTimer& self) {
          spin(5ms);
          if (--left > 0) self.scheduleTaskDelay(0.01);
        });
    beats->scheduleTaskDelay(0.01);
    doEventLoop();
    LoopFigures const loop = monitor.loop();
    EXPECT_GE(loop.running, 15ms);
    EXPECT_GE(loop.waiting, 25ms);
    EXPECT_EQ(loop.running + loop.waiting + loop.polling, loop.length);
    EXPECT_GE(loop.waits, 3U);
    EXPECT_GE(loop.looks, 3U);
    EXPECT_EQ(loop.looks, loop.slip.count());
    EXPECT_EQ(loop.slip.max().count(), root->maxSchedulerSlip().count());

    // What a loop inside a run waits for is the run's time.
    if (!host) return;
    auto const nested = workTask(root, "nested", [&](WorkTask&) { doEventLoop(0.005); });
    nested->scheduleTask();
    doEventLoop(0.001);
    EXPECT_EQ(monitor.loop().waiting, loop.waiting);
    EXPECT_GT(monitor.loop().waits, loop.waits);
    EXPECT_GE(monitor.loop().running, loop.running + 5ms);
  });
}

// Others take the processor now and then, so that one stretch of many has to fit.
TEST_P(MonitorWindowSuite, BusyLoopAgreesWithTheThreadsCpuTime) {
  run([] {
    auto const root = newRoot();
    Monitor monitor(root);
    double closest = 1;
    auto const busy = workTask(root, "busy", [](WorkTask&) { spin(2ms); });
    for (int attempt = 0; attempt < 500 && closest > 0.02; ++attempt) {
      std::this_thread::yield();
      monitor.clear();
      busy->scheduleTask();
      doEventLoop();
      LoopFigures const loop = monitor.loop();
      closest = std::min(closest, std::abs(seconds(loop.running) / seconds(loop.threadCpu) - 1));
    }
    EXPECT_LE(closest, 0.02);
  });
}

TEST(MonitorWindow, DayInVirtualTime) {
  Brelo::Platform::setFastForward(true);
  auto const root = newRoot();
  Monitor monitor(root);
  int runs = 0;
  auto const hourly =
      std::make_shared<WorkTimer>(root, TaskPriority::normal, "hourly", [&](WorkTimer& self) {
        if (++runs == 24) {
          skipTime(5);
          monitor.clear();
          skipTime(7);
        }
        self.taskWorkCountInc(3600);
        if (runs < 48) self.scheduleTaskDelay(3600);
      });
  hourly->scheduleTaskDelay(3600);
  doEventLoop();
  LoopFigures const loop = monitor.loop();
  EXPECT_NEAR(seconds(loop.length), 86407, 1);
  EXPECT_NEAR(seconds(loop.waiting), 86400, 1);
  EXPECT_NEAR(seconds(loop.running), 7, 0.1);
  EXPECT_LE(loop.waiting, loop.length + 1ms);
  EXPECT_LE(loop.threadCpu, 10s);
  NameFigures const figures = figuresOf(monitor, "root", "hourly");
  EXPECT_EQ(figures.run.count(), 25U) << "of the day, and the run that began it";
  EXPECT_EQ(figures.work, 25U * 3600);
  EXPECT_NEAR(seconds(figures.run.max()), 12, 0.1);
  EXPECT_NEAR(seconds(figures.used), 7, 0.1);
  EXPECT_EQ(figures.violations500, 1U);
  auto const document = parsed(monitor.document());
  EXPECT_NEAR(document["names"][0]["work_per_s"].GetDouble(), 25. / 24, 0.01);
  EXPECT_NEAR(document["loop"]["waiting_ratio"].GetDouble(), 1, 0.001);
}

}  // namespace
