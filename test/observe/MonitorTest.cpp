// What a monitor counts of names and of the loop.
#include "BreloObserve/Monitor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TaskGroup.h"
#include "Brelo/TaskScheduler.h"
#include "Brelo/TimerTask.h"
#include "observe/support/MonitorFigures.h"
#include "support/Backend.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using namespace std::chrono_literals;
using Brelo::TaskPriority;
using Brelo::Platform::doEventLoop;
using BreloObserve::Monitor;
using BreloObserve::NameFigures;

class MonitorSuite : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(MonitorSuite);

TEST_P(MonitorSuite, CountsByNameInGroupsOfGroupsLiveAndEnded) {
  run([] {
    auto const root = newRoot();
    Monitor const monitor(root);
    auto const outer = Brelo::TaskGroup::TaskGroupIs("outer", TaskPriority::high, false, root);
    auto const inner = Brelo::TaskGroup::TaskGroupIs("inner", TaskPriority::low, false, outer);
    auto const worker = workTask(inner, "worker-1", [&](WorkTask& task) {
      spin(1ms);
      task.taskWorkCountInc(5);
      task.taskWorkPendingIs(7);
    });
    worker->taskStatsNameIs("worker");
    worker->taskQuantumIs(Brelo::TaskTimeDuration(200'000));
    auto ends = workTask(inner, "worker-2", [](WorkTask& task) { task.taskWorkCountInc(1); });
    ends->taskStatsNameIs("worker");
    auto const idle = workTask(root, "worker", {}, TaskPriority::scavenge);
    worker->scheduleTask();
    ends->scheduleTask();
    doEventLoop();
    ends.reset();
    worker->scheduleTask();

    EXPECT_EQ(namesOf(monitor), (Names{"inner/worker", "outer/TaskGroup;inner",
                                       "root/TaskGroup;outer", "root/worker"}));
    NameFigures const workers = figuresOf(monitor, "inner", "worker");
    EXPECT_EQ(workers.parentGroup, "outer");
    EXPECT_FALSE(workers.isGroup);
    EXPECT_EQ(workers.tasks, 1U);
    EXPECT_EQ(workers.runnable, 1U);
    EXPECT_EQ(workers.pending, 7U);
    EXPECT_EQ(workers.run.count(), 2U);
    EXPECT_EQ(workers.wait.count(), 2U);
    EXPECT_EQ(workers.work, 6U);
    EXPECT_EQ(workers.violations500, 1U);
    EXPECT_EQ(workers.run.max().count(), worker->taskTotalRunTime.count());
    EXPECT_GE(workers.wait.max(), 1ms) << "the second one waited for the first";
    NameFigures const slices = figuresOf(monitor, "outer", "TaskGroup;inner");
    EXPECT_TRUE(slices.isGroup);
    EXPECT_EQ(slices.parentGroup, "root");
    EXPECT_GE(slices.used, workers.used);
    NameFigures const top = figuresOf(monitor, "root", "TaskGroup;outer");
    EXPECT_EQ(top.parentGroup, "");
    EXPECT_EQ(top.priority, TaskPriority::high);
    EXPECT_EQ(monitor.loop().running, top.used) << "of the runs inside each other once";
    NameFigures const idling = figuresOf(monitor, "root", "worker");
    EXPECT_EQ(idling.run.count(), 0U);
    EXPECT_EQ(idling.priority, TaskPriority::scavenge);
  });
}

TEST_P(MonitorSuite, DocumentIsSortedFoldedAndFiltered) {
  run([] {
    auto const root = newRoot();
    Monitor const monitor(root);
    auto const group = Brelo::TaskGroup::TaskGroupIs("g", TaskPriority::normal, false, root);
    std::string text;
    std::vector<std::shared_ptr<WorkTask>> tasks;
    for (unsigned i = 0; i < 5; ++i) {
      tasks.push_back(workTask(i < 4 ? root : std::static_pointer_cast<Brelo::TaskScheduler>(group),
                               "n" + std::to_string(i),
                               [i](WorkTask& task) { task.taskWorkCountInc(i); }));
      tasks.back()->scheduleTask();
    }
    tasks.push_back(workTask(root, "bad \xFF", [&](WorkTask&) {
      text = monitor.document({2, "work", true, "root"});
    }));
    doEventLoop();
    tasks[0]->scheduleTask();
    std::this_thread::sleep_for(2ms);
    tasks.back()->taskRunFromTest();

    auto const document = parsed(text);
    EXPECT_STREQ(document["document"].GetString(), "monitor");
    auto const& loop = document["loop"];
    EXPECT_EQ(loop["runs"].GetUint64(), 5U);
    EXPECT_EQ(loop["tasks"].GetUint64(), 7U);
    EXPECT_EQ(loop["runnable"].GetUint64(), 1U);
    EXPECT_EQ(loop["looks"].GetUint64(), loop["slip_ns"]["count"].GetUint64());
    EXPECT_STREQ(loop["present_run"]["name"].GetString(), "bad \xEF\xBF\xBD");
    EXPECT_STREQ(loop["longest_queued"]["name"].GetString(), "n0");
    EXPECT_GE(loop["longest_queued"]["queued_s"].GetDouble(), 0.002);
    EXPECT_TRUE(loop["next_timer_in_s"].IsNull());
    auto const& names = document["names"];
    ASSERT_EQ(names.Size(), 2U);
    EXPECT_STREQ(names[0]["name"].GetString(), "n3");
    EXPECT_STREQ(names[1]["name"].GetString(), "n2");
    EXPECT_TRUE(names[0]["parent_group"].IsNull());
    ASSERT_EQ(names[0]["run_histogram_ns"].Size(), 1U);
    EXPECT_GT(names[0]["run_histogram_ns"][0][0].GetUint64(), names[0]["run_max_ns"].GetUint64());
    EXPECT_EQ(names[0]["run_histogram_ns"][0][1].GetUint64(), 1U);
    EXPECT_EQ(document["names_total"].GetUint64(), 6U);
    EXPECT_EQ(document["names_shown"].GetUint64(), 2U);
    EXPECT_STREQ(document["rest"]["name"].GetString(), "(rest)");
    EXPECT_EQ(document["rest"]["work"].GetUint64(), 1U + 2U) << "of n1, and g's two looks";
    EXPECT_EQ(document["rest"]["tasks"].GetUint64(), 4U);
    EXPECT_EQ(document["tasks_counted"].GetUint64(), 7U);
    for (std::string_view const column : Monitor::columns()) {
      EXPECT_TRUE(names[0].HasMember(std::string(column).c_str())) << column;
      EXPECT_TRUE(Monitor::isColumn(column));
    }
    EXPECT_FALSE(Monitor::isColumn("run"));
    EXPECT_DEATH(monitor.document({0, "run"}), "no column run");

    auto const all = parsed(monitor.document({0, "name"}));
    EXPECT_TRUE(all["rest"].IsNull());
    EXPECT_TRUE(all["loop"]["present_run"].IsNull());
    EXPECT_STREQ(all["names"][0]["name"].GetString(), "TaskGroup;g");
    EXPECT_TRUE(all["names"][0]["is_group"].GetBool());
    EXPECT_STREQ(all["names"][6]["parent_group"].GetString(), "root");
  });
}

}  // namespace
