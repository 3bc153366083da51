#include <gtest/gtest.h>

#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Brelo/Task.h"
#include "Brelo/TaskScheduler.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using Brelo::TaskPriority;
using Brelo::TaskSchedulerRoot;

constexpr int high = 1, normal = 2, low = 3, scavenge = 4;

/// The rule of picks by itself: lists of waiting tasks by level, and no scheduler.
struct Model {
  void const* pick() {
    std::vector<int> tried;  // each gives way to the next; the last one runs
    for (int level = 0; level < TaskPriority::levels && (tried.empty() || givesWay(tried.back()));
         ++level) {
      if (now[level].empty()) {
        streak[level] = 0;
      } else {
        tried.push_back(level);
      }
    }
    if (tried.empty()) return nullptr;
    int const chosen = tried.back();
    for (int level : tried)
      streak[level] = level == chosen ? streak[level] + 1 : 0;
    passesTo[chosen] += tried.size() > 1;
    auto const* const picked = now[chosen].front();
    now[chosen].pop_front();
    return picked;
  }
  bool givesWay(int level) const {
    auto const waiting = [&](int at) { return now[at].size() + later[at].size(); };
    auto const n = 8 * waiting(normal), l = waiting(low);
    if (level == high) return (n + l) * streak[high] > 64 * waiting(high);
    return level == normal && l * streak[normal] > n;
  }

  std::list<void const*> now[5], later[5];  // in this slice, and after it
  // `passesTo` counts the picks that came about by a pass, by where they landed.
  unsigned streak[5] = {}, passesTo[5] = {};
};

/// Tasks that come, go, ask for runs, take them back and suspend each other, at random, from
/// inside runs and between them; the model follows.
struct Load {
  // What is done with a task, from this number to the next; one that ends is unscheduled first.
  enum { suspends = 0, unschedules = 4, ends = 4, schedules = 8, schedulesAll = 37, actions = 40 };

  void disturb() {
    int const level = below(5), what = below(actions);
    auto& task = tasks[level][below(level == low ? 20 : 3)];
    if (task == nullptr) {
      auto const work = [this](WorkTask& self) { ran(self); };
      task = workTask(group, "task", work, TaskPriority(level));
    }
    change(*task, what);
    if (what == ends) task.reset();
    for (auto const& each : tasks[level]) {
      if (what >= schedulesAll && each != nullptr) change(*each, schedules);
    }
  }
  void change(WorkTask& task, int what) {
    auto const level = task.taskPriority().value();
    bool const waited = task.taskScheduled();
    if (what < unschedules) {
      task.taskSuspendedIs(!task.taskSuspended());
    } else if (what < schedules) {
      task.unscheduleTask();
    } else {
      task.scheduleTask();
    }
    if (waited == task.taskScheduled()) return;
    model.now[level].remove(&task);
    model.later[level].remove(&task);
    auto& list = group->tasksPermittedMultipleRuns() ? model.now : model.later;
    if (!waited) list[level].push_back(&task);
  }
  void ran(WorkTask& task) {
    ++picks;
    ASSERT_EQ(model.pick(), &task);
    if ((restless >> task.taskPriority().value()) % 2 == 1) change(task, schedules);
    while (below(5) < 2)
      disturb();
  }
  int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random); }

  std::mt19937 random;
  std::shared_ptr<TaskSchedulerRoot> root = TaskSchedulerRoot::TaskSchedulerRootIs("root");
  std::shared_ptr<Brelo::TaskGroup> group =
      Brelo::TaskGroup::TaskGroupIs("group", TaskPriority::normal, false, root);
  Model model;
  unsigned picks = 0;
  int restless = 0;  // the bits of the levels whose runs ask for another one
  std::shared_ptr<WorkTask> tasks[5][20];
};

TEST(Fairness, RandomLoadsRunAsTheRulePredictsAlsoBetweenTheMoves) {
  Load load;
  auto const parent = registeredTask(*load.root, "TaskGroup;group");
  for (unsigned slice = 0; slice < 100000 && !HasFailure(); ++slice) {
    if (slice % 500 == 0) load.restless = 2 * load.below(16);
    parent->taskTestYieldRatioIs(static_cast<unsigned char>(2 + slice / 500 % 20));
    load.group->tasksPermittedMultipleRunsIs(load.below(2) == 0);
    load.group->taskGroupRunFromTest();
    // At most the last pick of a slice finds nothing.
    if (parent->taskWorkCountTotal != load.picks) {
      ASSERT_EQ(parent->taskWorkCountTotal, ++load.picks);
      ASSERT_EQ(load.model.pick(), nullptr);
    }
    load.group->tasksPermittedMultipleRunsIs(true);
    for (int level = 0; level < TaskPriority::levels; ++level)
      load.model.now[level].splice(load.model.now[level].end(), load.model.later[level]);
    if (load.below(4) == 0) load.disturb();
  }
  EXPECT_GT(load.model.passesTo[scavenge], 0U);
}

/// Tasks at the given levels, each of which asks for another run in every run, run in an order
/// that repeats `period`. Levels are told by their letters.
void expectPeriod(std::string const& levels, std::string const& period) {
  std::string order;
  auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("root");
  std::vector<std::shared_ptr<WorkTask>> tasks;
  auto const work = [&](WorkTask& task) {
    order += task.taskPriority().oneChar();
    task.scheduleTask();
  };
  for (char const letter : levels) {
    unsigned char const level = std::string("AHNLS").find(letter);
    tasks.push_back(workTask(root, "task", work, TaskPriority(level)));
    tasks.back()->scheduleTask();
  }
  while (order.size() < 2 * period.size())
    root->handleSchedulerRun();
  EXPECT_EQ(order, period + period);
}

TEST(Fairness, SteadyLoadsAreSharedByWeight) {
  expectPeriod("NNNL", std::string(25, 'N') + "L");
  std::string const eleven(11, 'H');
  expectPeriod("HHNLLLL", eleven + "N" + eleven + "N" + eleven + "N" + eleven + "L");
  expectPeriod("HLSS", std::string(65, 'H') + "L");
  expectPeriod("H" + std::string(100, 'L'), "HL");
  expectPeriod("AHN" + std::string(100, 'L'), std::string(500, 'A'));

  // The weights are compared in 32 bits.
  auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("root");
  auto const top = workTask(root, "top", {}, TaskPriority::high), middle = workTask(root, "middle");
  top->scheduleTask();
  middle->scheduleTask();
  EXPECT_FALSE(root->attemptLowerPriorityBump(TaskPriority::high, 0x20000000));
}

}  // namespace
