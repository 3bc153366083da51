#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "Brelo/TaskScheduler.h"
#include "support/SkipTime.h"
#include "support/TraceCapture.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using namespace std::chrono_literals;
using Brelo::TaskPriority;
using testing::ContainsRegex;

class TaskYield : public testing::Test {
 protected:
  /// Runs the task; the numbers, from 1, of those of `count` questions that were answered with yes.
  std::string yields(int count) {
    std::string numbers;
    task->work = [&](WorkTask& self) {
      for (int i = 1; i <= count; ++i)
        numbers += self.taskShouldYield() ? std::to_string(i) + " " : "";
    };
    task->taskRunFromTest();
    return numbers;
  }

  std::shared_ptr<Brelo::TaskSchedulerRoot> root = Brelo::schedulerRootBreloNonShared("root");
  std::shared_ptr<WorkTask> task = workTask(root, "task");
};

TEST_F(TaskYield, TheClockIsReadAtMostOncePerHalfMillisecondAndVirtualTimeAlways) {
  task->taskQuantumIs(1s);
  task->work = [&](WorkTask& self) {
    auto const asked = std::chrono::steady_clock::now();
    EXPECT_FALSE(self.taskShouldYield());
    self.taskQuantumIs(1ns);
    // On a busy machine this question may come late.
    EXPECT_FALSE(self.taskShouldYield() && std::chrono::steady_clock::now() - asked < 100us);
    while (std::chrono::steady_clock::now() - asked < 2ms) {
    }
    EXPECT_TRUE(self.taskShouldYield());
    EXPECT_TRUE(self.taskShouldYield());
    self.taskQuantumIs(1s);
    EXPECT_FALSE(self.taskShouldYield());
    // A run that comes to virtual time under way is measured from there.
    skipTime(2);
    root->virtualTimeIs(true);
    skipTime(0.9);
    EXPECT_FALSE(self.taskShouldYield());
    skipTime(0.1);
    EXPECT_TRUE(self.taskShouldYield());
  };
  task->taskRunFromTest();
  EXPECT_EQ(yields(3), "");
}

TEST_F(TaskYield, ARatioForcesAllGroupsAboveWinsOverTheRootsAndCountsInEightBits) {
  auto const outer = Brelo::TaskGroup::TaskGroupIs("outer", TaskPriority::normal, false, root);
  auto const inner = Brelo::TaskGroup::TaskGroupIs("inner", TaskPriority::normal, false, outer);
  auto const top = registeredTask(*root, "TaskGroup;outer");
  auto one = workTask(inner, "one"), two = workTask(inner, "two");
  root->clearHistory();
  one->taskTestYieldRatioIs(50);
  one->taskTestYieldRatioIs(0);
  EXPECT_EQ(takeEvents(*root, "N one"), "frcYieldOn,frcYieldOff,");
  one->taskTestYieldRatioIs(50);
  two->taskForceYieldInTestIs(true);
  two->taskForceYieldInTestIs(false);
  EXPECT_TRUE(top->taskForceYieldInTest());
  one.reset();
  EXPECT_FALSE(top->taskForceYieldInTest());

  root->taskTestYieldRatioIs(2);
  EXPECT_EQ(yields(5), "2 4 ");
  task->taskTestYieldRatioIs(100);
  EXPECT_EQ(yields(250), "100 200 ");
  EXPECT_EQ(yields(300), "6 106 206 262 ");  // the 256th, and a hundred each from there
  // A task that ends under the root's ratio keeps its groups forced.
  two.reset();
  root->taskTestYieldRatioIs(0);
  EXPECT_TRUE(top->taskForceYieldInTest());
}

TEST_F(TaskYield, QuantaHaveBoundsAndQuestionsATime) {
  {
    TraceCapture traces("TaskScheduler");
    task->taskQuantumIs(7ns);
    EXPECT_THAT(traces.take(), ContainsRegex("Scheduler/4 .*Set quantum"));
    task->taskQuantumIs(root->defaultTaskQuantum());
    EXPECT_THAT(traces.take(), ContainsRegex("Scheduler/9 .*Set quantum"));
  }
  EXPECT_DEATH(task->taskQuantumIs(1'000'000'001ns), "Quantum: 1000000001");
  task->taskRunFromTest();
  EXPECT_DEATH(task->taskShouldYield(), "taskCurrentlyRunning: 0 taskRunCount: 1");
}

}  // namespace
