#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "Zel/Activity.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using namespace std::chrono_literals;

struct TimerTask : testing::Test {
  /// The timer's events, its status as statistics show it, and the seconds until it expires.
  std::string takeState() {
    std::string const state = takeEvents(*root, "N timer") + timer->getStats().taskStatusString();
    double const left = timer->timerRemaining();
    return left == HUGE_VAL ? state : state + std::to_string(std::lround(left));
  }

  std::shared_ptr<Brelo::TaskSchedulerRoot> root = Brelo::schedulerRootBreloNonShared("root");
  std::shared_ptr<WorkTimer> timer =
      std::make_shared<WorkTimer>(root, Brelo::TaskPriority::normal, "timer");
};

TEST_F(TimerTask, EachRequestInEachStateLeadsWhereTheTableSays) {
  auto const now = [&] { timer->scheduleTask(); };
  auto const stop = [&] { timer->stopTimerTask(); };
  auto const delay = [&](auto d) { return [=] { timer->scheduleTaskDelay(d); }; };
  auto const lowest = [&](auto d) { return [=] { timer->scheduleTaskLowestDelay(d); }; };
  auto const up = [&](auto d) { return [=] { timer->scheduleTaskJitterUp(d, 0); }; };
  auto const down = [&](auto d) { return [=] { timer->scheduleTaskJitterDown(d, 0); }; };
  using Requests = std::vector<std::function<void()>>;
  std::vector<std::pair<Requests, std::string>> const table = {
      {{now, delay(0.0), delay(0ns), lowest(0.0), lowest(0ns)}, "schedule,busy,tN schedule,tN tN "},
      {{delay(50.0), delay(50s), up(50.0), up(50s), down(50.0), down(50s)},
       "timerStart,busy,Tn50 timerStart,Tn50 unschedule,timerStart,Tn50 "},
      {{delay(-1.0)}, "timerStart,busy,Tn0 timerStart,Tn0 unschedule,timerStart,Tn0 "},
      {{lowest(50.0), lowest(50s)}, "timerStart,busy,Tn50 timerStart,Tn50 tN "},
      {{lowest(200.0), lowest(200s)}, "timerStart,busy,Tn200 Tn100 tN "},
      {{stop, delay(HUGE_VAL), delay(Brelo::TaskTimeDuration::max()), up(HUGE_VAL)},
       "tn timerStop,idle,tn unschedule,idle,tn "}};
  for (auto const& [requests, results] : table) {
    for (auto const& request : requests) {
      std::string states;
      for (auto const& from : Requests{stop, delay(100.0), now}) {
        from();
        root->clearHistory();
        request();
        states += takeState() + " ";
      }
      EXPECT_EQ(states, results);
    }
  }
}

TEST_F(TimerTask, JitterFollowsTheRootsSequence) {
  unsigned seed = 0;
  auto const offset = [&](int percent) { return percent * 100.0 * (rand_r(&seed) / 21474836); };
  for (unsigned char percent = 0; percent <= 100; ++percent) {
    timer->scheduleTaskJitterUp(1'000'000s, percent);
    EXPECT_NEAR(timer->timerRemaining(), 1e6 + offset(percent), 1);
    timer->scheduleTaskJitterDown(1e6, percent);
    EXPECT_NEAR(timer->timerRemaining(), 1e6 - offset(percent), 1);
  }
  // A sum beyond the range is as late as can be, and not in the past.
  timer->scheduleTaskJitterUp(Brelo::TaskTimeDuration(INT64_MAX - 1), 100);
  EXPECT_GT(timer->timerRemaining(), 9e9);
}

TEST_F(TimerTask, RunsComeInTheOrderOfTheirTimesAndSuspensionKeepsThem) {
  Zel::activityManager()->virtualTimeIs(true);
  std::string order;
  auto const other = std::make_shared<WorkTimer>(root, Brelo::TaskPriority::normal, "other");
  timer->work = other->work = [&](WorkTimer& task) {
    order += task.taskName().front();
    if (order.size() < 6) task.scheduleTaskDelay(100s);
  };
  timer->scheduleTaskDelay(300.0);
  timer->scheduleTaskLowestDelay(50.0);
  other->scheduleTaskDelay(200.0);
  Brelo::Platform::doEventLoop();
  EXPECT_EQ(order, "ttototo");

  timer->taskSuspendedIs(true);
  timer->scheduleTaskDelay(10.0);
  Brelo::Platform::doEventLoop();
  timer->taskSuspendedIs(false);
  runUntilIdle(*root);
  EXPECT_EQ(order, "ttototot");

  timer->scheduleTaskDelay(10.0);
  timer->taskRunFromTest();
  EXPECT_FALSE(timer->taskScheduled()) << "a run takes the timer's place";
  timer->scheduleTaskDelay(10.0);
  timer.reset();
  Brelo::Platform::doEventLoop();
}

TEST_F(TimerTask, DelaysAndQuantaMayBeSpansOfFloatingPoint) {
  using Seconds = std::chrono::duration<double>;
  timer->scheduleTaskDelay(Seconds(0.25) + 1ms);
  EXPECT_NEAR(timer->timerRemaining(), 0.251, 0.1);
  timer->scheduleTaskLowestDelay(std::chrono::duration<float, std::milli>(100));
  EXPECT_NEAR(timer->timerRemaining(), 0.1, 0.05);
  timer->scheduleTaskDelay(Seconds(HUGE_VAL));
  EXPECT_EQ(timer->timerRemaining(), HUGE_VAL);
  timer->taskQuantumIs(Seconds(0.0025));
  EXPECT_EQ(timer->taskQuantum().count(), 2'500'000);
  EXPECT_EQ(Brelo::TaskTimeDuration(Seconds(-1.5e-9)).count(), -1);
  EXPECT_EQ(Brelo::TaskTimeDuration(Seconds(-1e30)).count(),
            std::numeric_limits<std::int64_t>::min());
}

TEST_F(TimerTask, BadDelaysPercentagesAndThreadsEndTheProcess) {
  auto const elsewhere = [](auto body) { std::thread(body).join(); };
  EXPECT_DEATH(elsewhere([&] { timer->scheduleTaskDelay(1.0); }), "Executing in wrong thread");
  EXPECT_DEATH(elsewhere([&] { timer->scheduleTaskDelay(1ms); }), "Executing in wrong thread");
  EXPECT_DEATH(timer->scheduleTaskDelay(std::chrono::duration<double>(std::nan(""))),
               "a duration is not a number");
  EXPECT_DEATH(timer->scheduleTaskLowestDelay(HUGE_VAL), "delayIntoFuture: inf");
  EXPECT_DEATH(timer->scheduleTaskJitterUp(1.0, 101), "maxJitterPercentage: e > 100");
}

}  // namespace
