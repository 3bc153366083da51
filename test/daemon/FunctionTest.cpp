// Tasks and timers from callables.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloDaemon/FunctionTask.h"
#include "BreloDaemon/FunctionTimer.h"
#include "support/Backend.h"

namespace BreloDaemon {
namespace {

using namespace std::chrono_literals;
using Brelo::TaskPriority;
using Brelo::TaskSchedulerRoot;
using Brelo::Platform::doEventLoop;

class Function : public BreloTest::OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(Function);

TEST_P(Function, ATaskRunsWhenAskedAndLettingGoTakesItBack) {
  run([] {
    auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("root");
    int runs = 0;
    FunctionTask task(root, TaskPriority::normal, "task", [&](Brelo::TaskImpl& self) {
      if (++runs < 3) self.scheduleTask();
    });
    task.schedule();
    EXPECT_TRUE(task.scheduled());
    doEventLoop();
    EXPECT_EQ(runs, 3);

    task.schedule();
    task.cancel();
    EXPECT_FALSE(task.scheduled());

    // Moved, let go of while queued, and from inside of the work, whose captures last.
    FunctionTask other = std::move(task);
    other.schedule();
    other = FunctionTask(root, TaskPriority::normal, "other", [&] { ++runs; });
    doEventLoop();
    EXPECT_EQ(runs, 3);
    std::optional<FunctionTask> own;
    auto const count = std::make_shared<int>(0);
    own.emplace(root, TaskPriority::normal, "own", [&own, held = count] {
      own->schedule();
      own.reset();
      ++*held;
    });
    own->schedule();
    doEventLoop();
    EXPECT_EQ(*count, 1);
    EXPECT_EQ(count.use_count(), 1);
  });
}

TEST_P(Function, APeriodKeepsItsGridAndLeavesOutWhatIsMissed) {
  run([] {
    auto const root = TaskSchedulerRoot::TaskSchedulerRootIs("root");
    constexpr double period = 0.005;
    std::vector<double> times;
    double start = 0;
    FunctionTimer timer(root, TaskPriority::normal, "timer", [&] {
      times.push_back((Brelo::time() - start) / period);
      if (times.size() == 3) usleep(17'000);  // three points of the grid pass
      if (times.size() == 4) throw std::runtime_error("once");
      if (times.size() == 8) timer.cancel();
    });
    start = Brelo::time();
    timer.every(std::chrono::duration<double>(period));
    EXPECT_THROW(doEventLoop(), std::runtime_error);
    root->requestSchedulerRun();
    doEventLoop();
    ASSERT_EQ(times.size(), 8U);
    EXPECT_FALSE(timer.armed());
    double last = 0;
    for (double const at : times) {
      EXPECT_GE(at, std::floor(last) + 1) << "a point of the grid is used once, and never early";
      last = at;
    }
    EXPECT_GE(times[3], std::floor(times[2]) + 4);

    int runs = 0;
    FunctionTimer once(root, TaskPriority::normal, "once", [&] { ++runs; });
    once.once(1h);
    once.once(std::chrono::duration<float, std::milli>(1));
    doEventLoop();
    EXPECT_EQ(runs, 1);
    std::optional<FunctionTimer> own;
    own.emplace(root, TaskPriority::normal, "own", [&] {
      ++runs;
      own.reset();
    });
    own->every(1ms);
    doEventLoop(0.01);
    EXPECT_EQ(runs, 2);
    EXPECT_DEATH(once.every(0ms), "period of 0 ns");
    EXPECT_DEATH(once.once(-1ns), "negative delay");
  });
}

}  // namespace
}  // namespace BreloDaemon
