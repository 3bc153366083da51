#include "Brelo/TaskSchedulerRoot.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Brelo/Platform.h"
#include "Brelo/RunObserver.h"
#include "Brelo/TaskGroup.h"
#include "Zel/Activity.h"
#include "support/Backend.h"
#include "support/ChildProcess.h"
#include "support/CountingRoot.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using Brelo::schedulerRootBrelo;
using Brelo::schedulerRootBreloNonShared;

TEST(Root, EachThreadHasOneOfItsOwn) {
  auto const root = schedulerRootBrelo();
  EXPECT_EQ(schedulerRootBrelo(), root);
  std::weak_ptr<Brelo::TaskSchedulerRoot> ofThread;
  std::thread([&] {
    ofThread = schedulerRootBrelo();
    EXPECT_NE(ofThread.lock(), root);
  }).join();
  EXPECT_TRUE(ofThread.expired()) << "a root dies with its thread";
}

TEST(Root, IsUsedOnItsOwnThreadOnlyWithThreeExcuses) {
  auto const root = schedulerRootBreloNonShared("r");
  auto const task = workTask(root, "a");
  auto const onThread = [](auto body) { std::thread(body).join(); };
  auto const schedule = [&] { task->scheduleTask(); };
  auto const complaint =
      "Executing in wrong thread [0-9]+\\([^)]+\\) pid [0-9]+ scheduler belongs to thread "
      "[0-9]+\\([^)]+\\) pid [0-9]+' "
      "failed";
  EXPECT_DEATH(onThread(schedule), complaint);
  EXPECT_DEATH(onThread([&] { workTask(root, "b"); }), complaint);
  root->threadSanityDisabledIs(true);
  onThread(schedule);
  root->threadSanityDisabledIs(false);
  EXPECT_DEATH(onThread(schedule), complaint);
  auxThreadCount = 1;
  onThread(schedule);
  auxThreadCount = 0;
  // Forked from there, the child's one thread is not the owner's.
  onThread([&] { EXPECT_TRUE(passesInChild(schedule)); });
}

TEST(Root, EachCallIsForItsThreadAlone) {
  auto const root = schedulerRootBreloNonShared("r");
  auto const task = workTask(root, "task");
  auto const timer = std::make_shared<WorkTimer>(root, Brelo::TaskPriority::normal, "timer");
  struct Observer : Brelo::RunObserver {
  } observer;
  std::function<void()> const calls[] = {
      [&] { (void)task->taskScheduled(); },
      [&] { task->unscheduleTask(); },
      [&] { (void)timer->taskScheduled(); },
      [&] { timer->scheduleTaskDelay(1.0); },
      [&] { timer->scheduleTaskDelay(Brelo::TaskTimeDuration(1)); },
      [&] { timer->scheduleTaskJitterUp(1.0, 10); },
      [&] { timer->scheduleTaskJitterDown(1.0, 10); },
      [&] { timer->scheduleTaskLowestDelay(1.0); },
      [&] { timer->stopTimerTask(); },
      [&] { (void)timer->currentExpirationTime(); },
      [&] { root->runObserverAdd(observer); },
      [&] { root->runObserverRemove(observer); },
      [&] { (void)root->snapshot("", true, true, true, 0); },
      [&] { root->snapshotRenderJsonAsync(-1, {}, {}); },
      [&] { root->statsRenderTextForDebug(std::cerr, true, true, true, true); },
  };
  for (auto const& call : calls) {
    EXPECT_DEATH(std::thread(call).join(), "Executing in wrong thread") << &call - calls;
  }
}

/// Ends after whatever static object is made later, and after the main thread's locals.
struct EndsWithProcess {
  ~EndsWithProcess() {
    int runs = 0;
    auto const root = schedulerRootBrelo();
    auto const task = workTask(root, "last", [&](WorkTask&) { ++runs; });
    task->scheduleTask();
    Brelo::Platform::doEventLoop();
    _exit(root->schedulerName() == "main" ? runs : 99);
  }
};

TEST(Root, IsToBeHadFromAStaticObjectThatEnds) {
  for (Backend const backend : backends) {
    for (bool const hadOne : {false, true}) {
      auto const end = [=] {
        if (backend == Backend::libevent) Brelo::useThreadLocalSingletons();
        static EndsWithProcess const last;
        if (hadOne) schedulerRootBrelo();
        std::exit(98);
      };
      EXPECT_EXIT(end(), testing::ExitedWithCode(1), "") << toString(backend) << hadOne;
    }
  }
}

class RootOnLoop : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(RootOnLoop);

TEST_P(RootOnLoop, SuspensionKeepsTasksForTheResume) {
  run([] {
    auto const root = std::make_shared<CountingRoot>("r");
    auto const task = workTask(root, "a");
    for (unsigned round = 0; round < 2; ++round) {
      task->scheduleTask();
      takeAllEvents(*root);
      root->suspendedIs(true);
      root->suspendedIs(true);
      Brelo::Platform::doEventLoop();
      EXPECT_EQ(task->taskRunCount, round);
      EXPECT_EQ(takeEvents(*root, "r"), "schedulerSuspended,schedulerRunIgnoredWhileSuspended,");
      root->suspendedIs(false);
      Brelo::Platform::doEventLoop();
      EXPECT_EQ(task->taskRunCount, round + 1);
    }
    root->callbacks = 0;
    root->suspendedIs(true);
    task->scheduleTask();
    Brelo::Platform::doEventLoop();
    EXPECT_EQ(root->callbacks, 0u);
    root->suspendedIs(false);
    Brelo::Platform::doEventLoop();
    EXPECT_EQ(task->taskRunCount, 3u);

    takeAllEvents(*root);
    root->callbacks = 0;
    root->suspendedIs(true);
    root->suspendedIs(false);
    Brelo::Platform::doEventLoop();
    EXPECT_EQ(root->callbacks, 1u) << "a resume with nothing queued makes one empty run";
    EXPECT_EQ(takeEvents(*root, "r"), "schedulerSuspended,schedulerUnsuspended,");
  });
}

TEST_P(RootOnLoop, MayEndWithTheTaskThatThrowsInItsLastRun) {
  run([] {
    auto root = schedulerRootBreloNonShared("root");
    std::weak_ptr<Brelo::TaskSchedulerRoot> const alive = root;
    auto task = workTask(root, "last");
    task->work = [&](WorkTask&) {
      root.reset();
      task.reset();
      throw std::runtime_error("last");
    };
    task->scheduleTask();
    EXPECT_THROW(Brelo::Platform::doEventLoop(0.01), std::runtime_error);
    EXPECT_TRUE(alive.expired());
    Brelo::Platform::doEventLoop();
  });
}

TEST_P(RootOnLoop, WhoIsQueuedAfterARunCouldNotBeHadAsksAgain) {
  struct Root : Brelo::TaskSchedulerRoot {
    using TaskSchedulerRoot::TaskSchedulerRoot;
    void requestSchedulerRun() override {
      if (std::exchange(fails, false)) throw std::bad_alloc();
      TaskSchedulerRoot::requestSchedulerRun();
    }
    bool fails = true;
  };
  run([] {
    auto const root = std::make_shared<Root>("r");
    auto const first = workTask(root, "first");
    auto const second = workTask(root, "second");
    EXPECT_THROW(first->scheduleTask(), std::bad_alloc);
    second->scheduleTask();
    Brelo::Platform::doEventLoop();
    EXPECT_EQ(second->taskRunCount, 1u);
  });
}

TEST(Root, OnlyTheMainThreadsRootFollowsVirtualTime) {
  auto const root = schedulerRootBreloNonShared("r");
  Zel::activityManager()->virtualTimeIs(true);
  EXPECT_FALSE(root->virtualTime()) << "taken over at the next run";
  root->handleSchedulerRun();
  EXPECT_TRUE(root->virtualTime());
  std::thread([] {
    auto const other = schedulerRootBreloNonShared("other");
    other->handleSchedulerRun();
    EXPECT_FALSE(other->virtualTime());
  }).join();
  Zel::activityManager()->virtualTimeIs(false);
  root->handleSchedulerRun();
  EXPECT_EQ(takeEvents(*root, "r"), "schedulerVirtualTimeOn,schedulerVirtualTimeOff,");
}

TEST(Root, CountsItsWholeTreeAndLendsItToTests) {
  auto const root = schedulerRootBreloNonShared("r");
  auto const group = Brelo::TaskGroup::TaskGroupIs("g", Brelo::TaskPriority::low, false, root);
  auto const inner = workTask(group, "a");
  auto outer = workTask(root, "b", [](WorkTask& self) { self.taskWorkCountInc(1); });
  inner->scheduleTask();
  outer->scheduleTask();
  EXPECT_EQ(root->taskGroupCount(), 1U);
  EXPECT_EQ(root->totalRegisteredTaskCount(), 3U) << "with the group's task";
  auto const stats = root->queueStatsRoot();
  EXPECT_EQ(stats.at(Brelo::TaskPriority::normal).runnableTasks, 2U);
  EXPECT_EQ(stats.at(Brelo::TaskPriority::low).runnableTasks, 1U);

  Brelo::TaskSchedulerRoot const& view = *root;
  EXPECT_EQ(root->findSchedulerForTest("g"), group);
  EXPECT_EQ(view.findSchedulerForTest("r"), root);
  EXPECT_TRUE(!root->findSchedulerForTest("b") && !view.findSchedulerForTest("b"));

  outer->taskRunAndRecordFromTest();
  outer->taskRunFromTest();
  EXPECT_FALSE(outer->taskScheduled());
  EXPECT_EQ(root->taskStatForTest("b").taskRunCount, 2U);
  EXPECT_EQ(root->taskStatForTest("x").taskRunCount, 0U);
  outer.reset();
  EXPECT_EQ(root->completedTaskStatForTest("b").taskRunCount, 2U);
  EXPECT_EQ(root->completedTaskStatForTest("x").taskRunCount, 0U);
  runUntilIdle(*root);
  EXPECT_EQ(group->parentTaskRunCount(), 1U);
}

}  // namespace
