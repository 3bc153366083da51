#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Brelo/TaskScheduler.h"
#include "support/SkipTime.h"
#include "support/TraceCapture.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using namespace std::chrono_literals;
using Brelo::TaskPriority;

struct TaskStat : testing::Test {
  std::shared_ptr<Brelo::TaskSchedulerRoot> root = Brelo::schedulerRootBreloNonShared("root");
  std::shared_ptr<WorkTask> task = workTask(root, "task");
};

TEST_F(TaskStat, WorkReportsAddDecayAndLeaveMarks) {
  auto const report = [&](unsigned long count, float average, unsigned mark) {
    task->taskWorkCountInc(count);
    EXPECT_EQ(task->taskWorkCountDecayAvg, average) << count;
    EXPECT_EQ(task->taskWorkCountHighWaterMark, Brelo::TaskMaybeU32(mark)) << count;
  };
  report(10, 10, 10);
  report(0, 9, 10);
  report(19, 10, 19);
  task->resetStats();
  report(0, 0, 0);
  report(10, 1, 10);
  task->resetStats();
  report(0xFFFFFFFF, 4294967296.0F, 0xFFFFFFFE);
  report(0x100000005, 4294967296.0F, 5);
  EXPECT_EQ(task->taskWorkCountTotal, 0x200000004U);
}

TEST_F(TaskStat, ARunOfTwoAndOfFiveQuantaIsAViolation) {
  root->virtualTimeIs(true);
  TraceCapture traces("TaskScheduler");
  std::string violations;
  for (std::int64_t milliseconds : {0, 19'900, 20'001, 49'900, 50'001}) {
    task->work = [&](WorkTask& self) {
      skipTime(static_cast<double>(milliseconds) * 1e-3);
      self.taskQuantumNoCheckIs(10s);  // what counts is the quantum at the end
    };
    task->taskRunFromTest();
    bool const isTraced = traces.take().find("% violation") != std::string::npos;
    violations += std::to_string(task->taskQuantumViolation200) + ":" +
                  std::to_string(task->taskQuantumViolation500) + (isTraced ? "! " : " ");
  }
  EXPECT_EQ(violations, "0:0 0:0 1:0! 2:0! 2:1! ");
}

TEST_F(TaskStat, LatencyAndSlipAreTheTimeFromTheRequest) {
  task->scheduleTask();
  std::this_thread::sleep_for(20ms);
  runUntilIdle(*root);
  EXPECT_GE(root->maxSchedulerSlip(), 20ms);
  EXPECT_GE(task->taskLastSchedulingLatency, 20ms);
  task->scheduleTask();
  task->unscheduleTask();
  EXPECT_LT(task->taskLastSchedulingLatency, task->taskSchedulingLatencyHighWaterMark);
}

TEST_F(TaskStat, EndedTasksOfOneStatsNameAreOneRecord) {
  auto other = workTask(root, "other", {}, TaskPriority::low);
  root->virtualTimeIs(true);
  for (auto const& each : {task, other, other, task}) {
    each->taskStatsNameIs("both");
    each->work = [&](WorkTask&) { skipTime(each == task ? 0.003 : 0.001); };
    each->taskRunFromTest();
    each->taskWorkCountInc(each == task ? 8 : 2);
  }
  task->taskWorkPendingIs(4);
  workTask(root, "hidden")->includeInCompletedTaskIs(false);
  task.reset();
  other.reset();
  auto const both = root->completedTaskStatForTest("both");
  EXPECT_EQ(both.taskCompletedCount, 2U);
  EXPECT_EQ(both.taskWorkCountTotal, 20U);
  EXPECT_EQ(both.taskWorkCountDecayAvg, 2);
  EXPECT_EQ(both.taskWorkCountHighWaterMark.value(), 8U);
  EXPECT_GE(both.taskRunTimeHighWaterMark(), 2'900us);
  EXPECT_TRUE(both.taskWorkPending == 0 && both.taskWorkPendingHighWaterMark.value() == 4);
  // A task that is not kept stays counted among the live ones.
  EXPECT_EQ(root->tasksPerPriority(TaskPriority::normal), 1U);
}

// A scheduler whose statistics are reset lives as long as the process, as its reset task holds it.
TEST_F(TaskStat, AResetOfTheTreeGoesOnWhileTasksComeAndGo) {
  static auto const group = Brelo::TaskGroup::TaskGroupIs("group", TaskPriority::low, false, root);
  std::vector<std::shared_ptr<WorkTask>> tasks = {workTask(group, "g")};
  for (auto const name : {"4", "3", "2", "1", "0"})
    tasks.push_back(workTask(root, name));
  auto const step = [&] {
    root->handleSchedulerRun();
    std::string reset;
    for (auto const& each : tasks)
      reset += each->taskWorkCountTotal == 0 ? each->taskName() : "";
    return reset;
  };
  for (auto const& each : tasks)
    each->taskWorkCountInc(1);
  root->resetStats();
  registeredTask(*root, "root;ResetStats")->taskForceYieldInTestIs(true);
  EXPECT_EQ(step(), "");  // the reset task itself
  EXPECT_EQ(step(), "0");
  tasks[4] = workTask(root, "n");
  tasks[4]->taskWorkCountInc(1);
  EXPECT_EQ(step(), "20");
  EXPECT_EQ(root->queueStatsRoot()[TaskPriority::normal].completedTasks, 1U);
  // A second request starts over, and takes the newcomer along.
  root->resetStats();
  EXPECT_TRUE(root->resetStatsInProgress());
  runUntilIdle(*root);
  EXPECT_FALSE(root->resetStatsInProgress());
  EXPECT_EQ(step(), "g432n0");
  EXPECT_EQ(root->queueStatsRoot()[TaskPriority::normal].completedTasks, 0U);
}

}  // namespace
