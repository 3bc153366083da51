// Who is told of each run, and of the loop's waits.
#include "Brelo/RunObserver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TaskGroup.h"
#include "Brelo/TaskScheduler.h"
#include "Brelo/TimerTask.h"
#include "support/Backend.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using Brelo::RunObserver;
using Brelo::TaskPriority;
using Brelo::TaskTimeDuration;
using Brelo::Platform::doEventLoop;

class RunObserverSuite : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(RunObserverSuite);

class Notes : public RunObserver {
 public:
  explicit Notes(unsigned hears = everything) : RunObserver(hears) {}
  static constexpr unsigned runs = starts | ends;
  static constexpr unsigned marks = markChanges;

  void runStarts(Run const& run) noexcept override {
    if (run.slip.count() >= 0) looked(*run.task.taskScheduler(), run.slip);
    said.push_back("start " + name(run));
    depth.push_back(&run);
  }
  void runEnds(Run const& run) noexcept override {
    said.push_back((run.threw ? "threw " : "end ") + name(run));
    if (!depth.empty()) {
      EXPECT_EQ(depth.back(), &run) << "runs do not nest";
      depth.pop_back();
    }
    EXPECT_LE(run.request, run.start);
    if (run.task.taskShouldYieldMode() != Brelo::TaskImpl::yieldModeVirtualTime) {
      EXPECT_EQ(run.used, TaskTimeDuration(run.end - run.start));
    }
    used += run.outer == nullptr ? run.used : TaskTimeDuration();
    waited = run.start - run.request;
    work += run.task.taskWorkCountTotal - run.workCountBefore;
  }
  void emptyLook(Brelo::TaskScheduler const& scheduler, TaskTimeDuration slip) noexcept override {
    looked(scheduler, slip);
  }
  void looked(Brelo::TaskScheduler const& scheduler, TaskTimeDuration slip) {
    said.push_back("look " + scheduler.schedulerName());
    if (&scheduler == &scheduler.root()) longestSlip = std::max(longestSlip, slip);
  }
  void loopWaited(TaskTimeDuration length) noexcept override { waits.push_back(length); }
  void runMarkChanged() noexcept override { said.push_back("mark changed"); }
  void statsCleared(Brelo::TaskScheduler const& scheduler) noexcept override {
    said.push_back("cleared " + scheduler.schedulerName());
  }

  TaskTimeDuration waitedInAll() const {
    TaskTimeDuration sum;
    for (TaskTimeDuration const wait : waits)
      sum += wait;
    return sum;
  }

  std::vector<std::string> said;
  std::vector<Run const*> depth;
  std::vector<TaskTimeDuration> waits;
  TaskTimeDuration used;
  TaskTimeDuration waited;
  TaskTimeDuration longestSlip;
  std::uint64_t work = 0;

 private:
  static std::string name(Run const& run) {
    return run.task.taskName() + (run.outer == nullptr ? "" : " in " + run.outer->task.taskName());
  }
};

using Said = std::vector<std::string>;

TEST_P(RunObserverSuite, ToldOfEachRunInItsOrderAndInsideOfWhat) {
  run([] {
    auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
    Notes notes;
    root->runObserverAdd(notes);
    auto const group = Brelo::TaskGroup::TaskGroupIs("g", TaskPriority::normal, false, root);
    int left = 2;
    auto const inner = workTask(group, "inner", [&](WorkTask& task) {
      auto const* const outer = root->observedRun()->outer;
      if (outer != nullptr) {
        EXPECT_EQ(outer->task.taskName(), "TaskGroup;g");
      }
      task.taskWorkCountInc(5);
      if (--left > 0) task.scheduleTask();
    });
    inner->scheduleTask();
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    doEventLoop();
    EXPECT_EQ(notes.said,
              (Said{"look root", "start TaskGroup;g", "look g", "start inner in TaskGroup;g",
                    "end inner in TaskGroup;g", "look g", "start inner in TaskGroup;g",
                    "end inner in TaskGroup;g", "look g", "end TaskGroup;g", "look root"}));
    EXPECT_EQ(notes.work, 13U);  // and the three looks that the slice counts as its work
    EXPECT_GE(notes.longestSlip, TaskTimeDuration(3'000'000));
    EXPECT_EQ(notes.longestSlip, root->maxSchedulerSlip());
    EXPECT_EQ(notes.used, root->taskStatForTest("TaskGroup;g").taskTotalRunTime);
    EXPECT_EQ(root->observedRun(), nullptr);

    notes.said.clear();
    inner->taskRunFromTest();
    inner->taskRunAndRecordFromTest();
    EXPECT_EQ(notes.said, (Said{"start inner", "end inner", "start inner", "end inner"}));
    root->runObserverRemove(notes);
    doEventLoop();
    EXPECT_EQ(notes.said.size(), 4U);

    Notes cleared;
    auto const alone = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("alone");
    alone->runObserverAdd(cleared);
    alone->clearStats();
    EXPECT_EQ(cleared.said, Said{"cleared alone"});
    alone->runObserverRemove(cleared);
  });
}

TEST_P(RunObserverSuite, ThrownOutOfHandledAndNestedLoops) {
  run([host = GetParam() == Backend::host] {
    auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
    Notes notes;
    root->runObserverAdd(notes);
    auto const group = Brelo::TaskGroup::TaskGroupIs("g", TaskPriority::normal, false, root);
    auto const thrower =
        workTask(group, "thrower", [](WorkTask&) { throw std::runtime_error("no"); });
    thrower->scheduleTask();
    EXPECT_THROW(doEventLoop(), std::runtime_error);
    EXPECT_EQ(notes.said,
              (Said{"look root", "start TaskGroup;g", "look g", "start thrower in TaskGroup;g",
                    "threw thrower in TaskGroup;g", "threw TaskGroup;g"}));
    EXPECT_EQ(root->observedRun(), nullptr);

    root->taskExceptionHandlerIs([](Brelo::_TaskBase&) { return true; });
    auto const handled =
        workTask(root, "handled", [](WorkTask&) { throw std::runtime_error("no"); });
    notes.said.clear();
    handled->taskRunFromTest();
    EXPECT_EQ(notes.said, (Said{"start handled", "end handled"}));

    if (!host) return root->runObserverRemove(notes);
    notes.said.clear();
    auto const nested = workTask(root, "nested", [](WorkTask&) {});
    auto const outer = workTask(root, "outer", [&](WorkTask&) {
      nested->scheduleTask();
      doEventLoop(0.001);
    });
    outer->scheduleTask();
    root->requestSchedulerRun();
    doEventLoop(0.01);
    auto const has = [&](std::string const& what) {
      return std::find(notes.said.begin(), notes.said.end(), what) != notes.said.end();
    };
    EXPECT_TRUE(has("start outer") && has("end outer"));
    EXPECT_TRUE(has("start nested") || has("start nested in outer"));
    root->runObserverRemove(notes);
  });
}

// Each comes and goes amid runs, and the others hear everything.
TEST_P(RunObserverSuite, SeveralComeAndGo) {
  run([] {
    auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
    Notes first;
    Notes second;
    Notes third;
    auto const adds = workTask(root, "adds", [&](WorkTask&) {
      root->runObserverAdd(second);
      root->runObserverAdd(third);
    });
    auto const removes = workTask(root, "removes", [&](WorkTask&) {
      root->runObserverRemove(second);
      root->runObserverRemove(first);
    });
    root->runObserverAdd(first);
    adds->scheduleTask();
    removes->scheduleTask();
    doEventLoop();
    EXPECT_EQ(first.said,
              (Said{"look root", "start adds", "end adds", "look root", "start removes"}));
    EXPECT_EQ(second.said, (Said{"end adds", "look root", "start removes"}));
    EXPECT_EQ(third.said,
              (Said{"end adds", "look root", "start removes", "end removes", "look root"}));
    EXPECT_DEATH(root->runObserverAdd(third), "Already an observer of root");
    root->runObserverRemove(third);
    EXPECT_DEATH(root->runObserverRemove(third), "No such observer of root");
  });
}

TEST_P(RunObserverSuite, WaitsAreAsLongAsTheLoopSleeps) {
  run([] {
    auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
    Notes notes;
    Notes other;
    root->runObserverAdd(notes);
    auto const otherRoot = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("other");
    otherRoot->runObserverAdd(other);
    int left = 3;
    auto const task =
        std::make_shared<WorkTimer>(root, TaskPriority::normal, "sleeper", [&](WorkTimer& self) {
          auto const until = std::chrono::steady_clock::now() + std::chrono::milliseconds(5);
          while (std::chrono::steady_clock::now() < until) {
          }
          if (--left > 0) self.scheduleTaskDelay(0.02);
        });
    auto const start = std::chrono::steady_clock::now();
    task->scheduleTaskDelay(0.02);
    doEventLoop();
    TaskTimeDuration const total = std::chrono::steady_clock::now() - start;
    EXPECT_GE(notes.waits.size(), 3U);
    EXPECT_GE(notes.used, TaskTimeDuration(15'000'000));
    EXPECT_GE(notes.waitedInAll(), TaskTimeDuration(55'000'000)) << "the rest is spent on looks";
    EXPECT_LE(notes.waitedInAll() + notes.used, total);
    EXPECT_EQ(notes.waits, other.waits);
    otherRoot->runObserverRemove(other);

    // What does not wait says nothing.
    notes.waits.clear();
    int runs = 100;
    auto const busy = workTask(root, "busy", [&](WorkTask& self) {
      if (--runs > 0) self.scheduleTask();
    });
    busy->scheduleTask();
    doEventLoop();
    EXPECT_EQ(notes.waits.size(), 0U);
    root->runObserverRemove(notes);
  });
}

TEST_P(RunObserverSuite, WhoHearsOfRunsAloneHearsOfNothingElse) {
  run([] {
    auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
    Notes runs(Notes::runs);
    Notes all;
    root->runObserverAdd(all);
    root->runObserverAdd(runs);
    auto const task =
        std::make_shared<WorkTimer>(root, TaskPriority::normal, "t", [](WorkTimer&) {});
    auto const waitsAndRuns = [&] {
      task->scheduleTaskDelay(0.005);
      doEventLoop();
    };
    waitsAndRuns();
    EXPECT_FALSE(all.waits.empty());
    root->runObserverRemove(all);
    waitsAndRuns();
    EXPECT_EQ(runs.said, (Said{"look root", "start t", "end t", "look root", "start t", "end t"}));
    EXPECT_TRUE(runs.waits.empty());
    root->runObserverRemove(runs);
  });
}

TEST_P(RunObserverSuite, TheMarkIsThatOfTheInnermostRun) {
  run([] {
    for (bool const othersHearOfRuns : {false, true}) {
      auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
      Brelo::RunMark& mark = root->runMark();
      auto const wellTask = workTask(root, "well", [](WorkTask&) {});
      wellTask->taskRunFromTest();
      EXPECT_EQ(mark.phase(), Brelo::RunMark::Phase()) << "nobody hears of it";

      Notes notes(Notes::marks);
      Notes others(Notes::runs);
      root->runObserverAdd(notes);
      if (othersHearOfRuns) root->runObserverAdd(others);
      auto const inner = workTask(root, "inner", [&](WorkTask& self) {
        EXPECT_TRUE(mark.phase().running());
        EXPECT_EQ(mark.task(), &self);
        throw std::runtime_error("inner");
      });
      auto const outer = workTask(root, "outer", [&](WorkTask& self) {
        auto const before = mark.phase();
        EXPECT_TRUE(before.running());
        EXPECT_EQ(mark.task(), &self);
        EXPECT_TRUE(notes.said.empty()) << "nobody has asked";
        mark.tellNextChange();
        EXPECT_THROW(inner->taskRunFromTest(), std::runtime_error);
        EXPECT_EQ(notes.said, Said{"mark changed"}) << "once";
        EXPECT_TRUE(mark.phase().running());
        EXPECT_EQ(mark.task(), &self);
        EXPECT_GE(mark.phase().since(), before.since());
        EXPECT_NE(mark.phase(), before) << "what is left is another part";
      });
      outer->scheduleTask();
      doEventLoop();
      EXPECT_FALSE(mark.phase().running());
      EXPECT_NE(mark.phase(), Brelo::RunMark::Phase());
      EXPECT_EQ(mark.task(), nullptr);
      EXPECT_EQ(others.said.empty(), !othersHearOfRuns);

      // Who goes amid a run leaves a mark that says nothing.
      auto const last = workTask(root, "last", [&](WorkTask&) { root->runObserverRemove(notes); });
      last->scheduleTask();
      doEventLoop();
      EXPECT_FALSE(mark.phase().running());
      EXPECT_EQ(mark.task(), nullptr);
      if (othersHearOfRuns) root->runObserverRemove(others);
    }
  });
}

TEST(RunObserver, WhatVirtualTimeSkipsIsAWait) {
  Brelo::Platform::setFastForward(true);
  auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
  Notes notes;
  root->runObserverAdd(notes);
  int runs = 0;
  auto const hourly =
      std::make_shared<WorkTimer>(root, TaskPriority::normal, "hourly", [&](WorkTimer& self) {
        if (++runs < 24) self.scheduleTaskDelay(3600);
      });
  double const start = Brelo::time();
  hourly->scheduleTaskDelay(3600);
  doEventLoop();
  double const day = Brelo::time() - start;
  EXPECT_EQ(runs, 24);
  EXPECT_NEAR(static_cast<double>(notes.waitedInAll().count()) * 1e-9, day, 1);
  root->runObserverRemove(notes);
  Brelo::Platform::setFastForward(false);
}

}  // namespace
