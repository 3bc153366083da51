#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "Brelo/TaskScheduler.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using namespace std::chrono_literals;
using Brelo::TaskPriority;

auto makeGroup(char const* name, std::shared_ptr<Brelo::TaskScheduler> above) {
  return Brelo::TaskGroup::TaskGroupIs(name, TaskPriority::normal, false, above);
}

struct TaskGroup : testing::Test {
  std::shared_ptr<Brelo::TaskSchedulerRoot> root = Brelo::schedulerRootBreloNonShared("root");
  std::shared_ptr<Brelo::TaskGroup> group = makeGroup("group", root);
  std::shared_ptr<Brelo::TaskImpl> parent = registeredTask(*root, "TaskGroup;group");
  std::shared_ptr<WorkTask> task = workTask(group, "task");
};

TEST_F(TaskGroup, NestedGroupsWorkAsOneTaskOfTheRoot) {
  group->taskGroupQuantumIs(1s);
  auto const inner = makeGroup("inner", group);
  task = workTask(inner, "inner");
  task->scheduleTask();
  runUntilIdle(*root);
  EXPECT_EQ(parent->taskRunCount, 1U);
  EXPECT_FALSE(group->schedulerHasRunnableTasks() || group->parentTaskScheduled());

  // What is taken back costs a slice that finds nothing.
  task->scheduleTask();
  task->unscheduleTask();
  runUntilIdle(*root);
  EXPECT_EQ(parent->taskRunCount, 2U);
}

TEST_F(TaskGroup, ASliceLastsUntilTheParentsQuantumIsGone) {
  task->work = [](WorkTask& self) { self.scheduleTask(); };
  task->scheduleTask();
  group->taskGroupQuantumIs(30ms);
  root->handleSchedulerRun();
  EXPECT_GE(parent->taskTotalRunTime, 30ms);
  EXPECT_EQ(parent->taskWorkPending, 1U);

  group->taskGroupQuantumNoCheckIs(10s);
  EXPECT_EQ(group->taskGroupQuantum(), Brelo::TaskTimeDuration(10s));
  group->taskGroupForceYieldInTestIs(true);
  std::uint32_t const runs = task->taskRunCount;
  root->handleSchedulerRun();
  EXPECT_EQ(task->taskRunCount, runs + 1) << "each slice ends at its first question";
}

TEST_F(TaskGroup, MayBeDroppedFromInsideOneOfItsTasks) {
  std::weak_ptr<Brelo::TaskGroup> const last = group;
  task->work = [&](WorkTask&) {
    group.reset();
    task.reset();
    EXPECT_FALSE(last.expired());
  };
  task->scheduleTask();
  runUntilIdle(*root);
  EXPECT_TRUE(last.expired());
}

TEST_F(TaskGroup, AnOrphanedParentRunsEmpty) {
  task.reset();
  group->requestSchedulerRun();
  group.reset();
  runUntilIdle(*root);
  EXPECT_EQ(parent->taskRunCount, 1U);
  EXPECT_DEATH(parent->isTaskGroup(), "TaskGroup is non-null");
}

TEST_F(TaskGroup, ASuspendedRootStopsTheRunsOfASliceThatIsUnderWay) {
  auto const next = workTask(group, "next");
  task->work = [&](WorkTask&) { root->suspendedIs(true); };
  task->scheduleTask();
  next->scheduleTask();
  root->handleSchedulerRun();
  EXPECT_EQ(next->taskRunCount, 0U);
  root->suspendedIs(false);
  root->handleSchedulerRun();
  EXPECT_EQ(next->taskRunCount, 1U);
}

TEST_F(TaskGroup, AnExceptionLeavesTheRestForTheNextRequestOrShowsAtTheNextMove) {
  auto const next = workTask(group, "next");
  task->work = [](WorkTask&) { throw 1; };
  for (bool const multipleRuns : {true, false}) {
    group->tasksPermittedMultipleRunsIs(multipleRuns);
    task->scheduleTask();
    next->scheduleTask();
    EXPECT_THROW(root->handleSchedulerRun(), int);
    if (multipleRuns) group->taskGroupRunFromTest();
    EXPECT_EQ(next->taskRunCount, 1U);
  }
  EXPECT_DEATH(group->taskGroupRunFromTest(), "temporary run queue should always be empty");
}

TEST_F(TaskGroup, NeedsASchedulerAbove) {
  EXPECT_DEATH(Brelo::TaskGroup::TaskGroupIs("g", Brelo::TaskPriority::low, false, nullptr),
               "Need a TaskScheduler");
}

TEST_F(TaskGroup, AnEnforcedPriorityBindsAllButTheLibrarysOwnTasks) {
  // A scheduler that has reset its statistics lives on with its reset task.
  static auto const lowGroup = Brelo::TaskGroup::TaskGroupIs("low", TaskPriority::low, true, root);
  EXPECT_DEATH(makeGroup("g", lowGroup),
               "taskPriority\\( normal \\) != taskGroupPriority\\( low \\)");
  lowGroup->resetStats();
  EXPECT_EQ(registeredTask(*lowGroup, "low;ResetStats")->taskPriority(), TaskPriority::low);
}

}  // namespace
