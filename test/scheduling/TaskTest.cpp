#include "Brelo/Task.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "Brelo/TaskSchedulerHistory.h"
#include "support/Backend.h"
#include "support/CountingRoot.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using Brelo::TaskPriority;
using Brelo::Platform::doEventLoop;
using testing::ElementsAre;

class Task : public testing::Test {
 protected:
  std::shared_ptr<CountingRoot> const root = std::make_shared<CountingRoot>("r");
};

TEST_F(Task, UnschedulingTheOnlyTaskLeavesOneEmptyRun) {
  auto const task = workTask(root, "a");
  task->scheduleTask();
  task->unscheduleTask();
  EXPECT_TRUE(root->schedulerHasRunnableTasks());
  root->handleSchedulerRun();
  EXPECT_EQ(takeEvents(*root, "N a"), "create,schedule,busy,unschedule,idle,");
}

TEST_F(Task, ARunInsideARunLeavesTheOuterTaskAlive) {
  auto const inner = workTask(root, "inner");
  auto outer = workTask(root, "outer");
  std::weak_ptr<WorkTask> const alive = outer;
  bool aliveAfterInner = false;
  outer->work = [&](WorkTask&) {
    outer.reset();
    inner->scheduleTask();
    root->handleSchedulerRun();
    aliveAfterInner = !alive.expired();
  };
  outer->scheduleTask();
  root->handleSchedulerRun();
  EXPECT_EQ(inner->taskRunCount, 1U);
  EXPECT_TRUE(aliveAfterInner && alive.expired());
}

TEST_F(Task, ResumingMakesUpForWhatSuspensionDropped) {
  auto const task = workTask(root, "a");
  task->scheduleTask();
  takeAllEvents(*root);
  for (bool const suspended : {true, true, false, false}) {
    task->taskSuspendedIs(suspended);
    if (suspended) task->scheduleTask();
  }
  runUntilIdle(*root);
  EXPECT_EQ(takeEvents(*root, "N a"),
            "suspendOn,unschedule,idle,scheduleSus,scheduleSus,suspendOff,schedule,busy,"
            "run start,run end,idle,");
  task->taskSuspendedIs(true);
  task->taskSuspendedIs(false);
  runUntilIdle(*root);
  EXPECT_EQ(task->taskRunCount, 2u) << "nobody asked for a run while it was suspended";

  takeAllEvents(*root);
  task->work = [](auto& self) {
    self.scheduleTask();
    self.taskSuspendedIs(true);
    self.scheduleTask();
  };
  task->scheduleTask();
  runUntilIdle(*root);
  EXPECT_EQ(takeEvents(*root, "N a"),
            "schedule,busy,run start,schedule,suspendOn,unschedule,idle,scheduleSus,run end,");
}

struct HookedTask : WorkTask {
  using WorkTask::handleDestroy;
  using WorkTask::WorkTask;
  void handleTaskBusy() override { states.push_back(taskBusy()); }
  std::vector<bool> states;
};

TEST_F(Task, LeavesItsSchedulerOnceAndUnrun) {
  auto task = std::make_shared<HookedTask>(root, TaskPriority::normal, "a");
  task->scheduleTask();
  runUntilIdle(*root);
  task->scheduleTask();
  takeAllEvents(*root);
  task->handleDestroy();
  EXPECT_THAT(task->states, ElementsAre(true, false, true, false));
  task.reset();
  EXPECT_EQ(takeEvents(*root, "N a"), "unschedule,idle,delete,");
}

TEST_F(Task, IsWrittenToAStreamWithItsSchedulerAndPriority) {
  auto const task = workTask(root, "job");
  std::ostringstream text;
  text << task.get() << ' ' << root.get() << ' ' << TaskPriority::high << ' '
       << TaskPriority(TaskPriority::levels + 1) << ' ' << Brelo::TaskTimeDuration(1500) << ' '
       << Brelo::TaskSchedulerEventType::runEnd;
  EXPECT_THAT(text.str(),
              testing::MatchesRegex("r:normal:job@0x[0-9a-f]+ r: high invalidPriority=6 1µs 3"));
}

TEST_F(Task, TimesAreWrittenInTheLargestUnitOfWhichThereIsOne) {
  std::ostringstream text;
  for (std::int64_t const time :
       {999L, 1'000L, 999'999L, 1'000'000L, 59'999'999'999L, 60'000'000'000L, 3'600'000'000'000L})
    text << Brelo::TaskTimeDuration(time) << ' ';
  EXPECT_EQ(text.str(), "999ns 1µs 999µs 1ms 59999ms 60s 60min ");
}

TEST_F(Task, TakesItsSchedulerByAPointerThatAnotherOneOwns) {
  struct Timer : Brelo::TimerTask {
    using TimerTask::TimerTask;
    void taskExecute() override {}
  };
  struct Watching : Brelo::FileDescriptorTask {
    using FileDescriptorTask::FileDescriptorTask;
    void taskExecuteReadable() override {}
    void taskExecuteWritable() override {}
  };
  auto const timer = std::make_shared<Timer>(root.get(), TaskPriority::low, "timer");
  auto const watching = std::make_shared<Watching>(root.get(), TaskPriority::low, "watching");
  EXPECT_EQ(timer->taskScheduler(), root);
  EXPECT_EQ(watching->taskScheduler(), root);
  Brelo::TaskScheduler* const none = nullptr;
  EXPECT_DEATH(Timer(none, TaskPriority::low, "timer"), "Need a TaskScheduler");
}

TEST_F(Task, KnowsHowLongItHasRun) {
  auto const task = workTask(root, "job", [](WorkTask& self) {
    auto const earlier = self.taskCurrentRunTime();
    usleep(1000);
    EXPECT_GE(self.taskCurrentRunTime() - earlier, std::chrono::milliseconds(1));
  });
  task->scheduleTask();
  root->handleSchedulerRun();
  EXPECT_EQ(task->taskRunCount, 1U);
  EXPECT_DEATH((void)task->taskCurrentRunTime(), "not currently running");
}

TEST_F(Task, WithoutAnOwnerRaisesBadWeakPtr) {
  WorkTask unowned(root, TaskPriority::normal, "a");
  unowned.scheduleTask();
  EXPECT_THROW(root->handleSchedulerRun(), std::bad_weak_ptr);
}

class TaskOnLoop : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(TaskOnLoop);

TEST_P(TaskOnLoop, EachCallbackRunsOneTaskAndOneMoreFindsNothing) {
  run([] {
    auto const root = std::make_shared<CountingRoot>("r");
    std::string order;
    auto const a = workTask(root, "a", [&](auto& task) {
      order += "a";
      if (task.taskRunCount == 1) task.scheduleTask();
    });
    auto const b = workTask(root, "b", [&](auto&) { order += "b"; });
    for (auto const& task : {a, a, b})
      task->scheduleTask();
    EXPECT_EQ(root->requests, 1u);
    doEventLoop();
    EXPECT_EQ(order, "aba");
    EXPECT_EQ(root->callbacks, 4u);
    EXPECT_THAT(
        takeAllEvents(*root),
        ElementsAre("create       N a", "create       N b", "schedule     N a",
                    "schedulerRunnable r", "busy         N a", "schedule     N b",
                    "busy         N b", "run start    N a", "schedule     N a", "run end      N a",
                    "run start    N b", "run end      N b", "idle         N b", "run start    N a",
                    "run end      N a", "idle         N a", "schedulerIdle r"));
  });
}

TEST_P(TaskOnLoop, LastOwnerGoneInItsRunEndsTaskAndRootAfterIt) {
  run([] {
    auto root = std::make_shared<CountingRoot>("r");
    std::shared_ptr<WorkTask> task;
    std::weak_ptr<CountingRoot> const weakRoot = root;
    std::weak_ptr<WorkTask> weakTask;
    task = workTask(root, "a", [&](auto&) {
      task.reset();
      root.reset();
      EXPECT_FALSE(weakTask.expired() || weakRoot.expired());
    });
    weakTask = task;
    task->scheduleTask();
    doEventLoop();
    EXPECT_TRUE(weakTask.expired() && weakRoot.expired());
  });
}

TEST_P(TaskOnLoop, ExceptionLeavesTheSchedulerStandingUntilARunIsRequested) {
  run([] {
    auto const root = std::make_shared<CountingRoot>("r");
    auto thrower = workTask(root, "a", [](auto&) { throw std::runtime_error("task"); });
    auto const other = workTask(root, "b");
    thrower->scheduleTask();
    EXPECT_THROW(doEventLoop(), std::runtime_error);
    EXPECT_TRUE(thrower->taskStatus().taskCurrentlyRunning() && thrower->taskBusy());
    thrower.reset();
    EXPECT_EQ(takeEvents(*root, "N a"), "create,schedule,busy,run start,idle,delete,");
    other->scheduleTask();
    doEventLoop();
    EXPECT_EQ(other->taskRunCount, 0u);
    root->requestSchedulerRun();
    doEventLoop();
    EXPECT_EQ(other->taskRunCount, 1u);
  });
}

TEST_F(Task, WrongUseEndsTheProcess) {
  auto const task = std::make_shared<HookedTask>(root, TaskPriority::normal, "a");
  EXPECT_DEATH(workTask(root, "b", {}, TaskPriority(5)), "`invalidPriority=5' failed");
  EXPECT_DEATH(workTask(nullptr, "b"), "Brelo/TaskScheduler:.*`Need a TaskScheduler' failed");
  EXPECT_DEATH(root->taskRegister(task.get()), "`Task: r:normal:a@0x.* already registered'");
  task->work = [&](auto&) { task->handleDestroy(); };
  EXPECT_DEATH(task->taskRunFromTest(), "taskMagicNumber: 3735936685 .*: 1119771390'");
}

}  // namespace
