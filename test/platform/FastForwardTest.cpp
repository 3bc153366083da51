#include <event2/event.h>
#include <event2/event_struct.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "Brelo/TaskControl.h"
#include "Brelo/TaskScheduler.h"
#include "Brelo/TimerWheel.h"
#include "support/Backend.h"
#include "support/Handlers.h"

namespace {

using namespace BreloTest;
using namespace Brelo::Platform;
using Brelo::leVirtualTimeOffset;

/// Runs `body` in virtual time. Both switches are turned on the main thread.
template <class Body>
void onFast(Backend backend, Body body) {
  auto* const switchIs = backend == Backend::host ? setFastForward : Brelo::setLeFastForward;
  switchIs(true);
  onBackend(backend, body);
  switchIs(false);
}

struct FastForward : testing::TestWithParam<Backend> {};
INSTANTIATE_BOTH_BACKENDS(FastForward);

TEST_P(FastForward, AnHourOfTimersPassesAtOnceInExactOrder) {
  onFast(GetParam(), [] {
    Timer timers[4];
    auto const root = Brelo::schedulerRootBreloNonShared("root");
    if (GetParam() == Backend::host) {  // on libevent a wheel goes by the clock that stays
      timers[1].control = getTimerControl(&timers[1], root->timerWheel());
      timers[2].control = getTimerControl(&timers[2], root, Brelo::TaskPriority::normal, "task");
    }
    auto const now = [] { return Brelo::time() + leVirtualTimeOffset(); };
    double const start = now();
    std::vector<double> told;
    for (int i : {0, 1, 2, 3}) {
      timers[i].action = [&, i, period = i % 2 == 0 ? 1.0 : i + 0.5] {
        double const due = 0.1 * i + (timers[i].runs - 1) * period;
        EXPECT_GE(now(), start + due - 1e-5);
        told.push_back(due);
        if (due + period <= 3600.0) timers[i].control->setTimeout(start + due + period - now());
      };
      timers[i].control->setTimeout(start + 0.1 * i - now());
    }
    for (int steps = 0; steps < 50'000 && told.size() < 3601 + 2400 + 3600 + 1029; ++steps)
      doEventLoopInWaitfor(3600.0);
    EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
    EXPECT_TRUE(timers[0].runs == 3601 && timers[1].runs == 2400);
    EXPECT_TRUE(timers[2].runs == 3600 && timers[3].runs == 1029);
  });
}

TEST(LeFastForward, AStepGoesToTheFirstTimerOrAsFarAsItsBoundAndALoopSkipsItsFirstWait) {
  onFast(Backend::libevent, [] {
    auto const step = [](double bound) {
      doEventLoopInWaitfor(bound);
      return leVirtualTimeOffset();
    };
    Timer timers[2];
    EXPECT_EQ(step(1.5), 1.5);
    EXPECT_DOUBLE_EQ(step(0.7500019), 2.250001) << "in whole microseconds";
    timers[0].control->setTimeout(100.0);
    EXPECT_DOUBLE_EQ(step(5.25), 7.500001);
    EXPECT_NEAR(timers[0].control->remainingTimeout(), 94.75, 1.0);
    SocketPair pair;
    pair.send();
    Watch watch(pair.near(), true, false);
    double const offset = step(1000.0);
    EXPECT_NEAR(offset, 102.25, 1.0);
    EXPECT_EQ(timers[0].runs + watch.read.runs, 2);
    timers[0].control->setTimeout(0.0);
    EXPECT_EQ(step(1000.0), offset) << "it was due already";

    watch.control->delFd();
    timers[0].control->setTimeout(100.0);
    timers[1].control->setTimeout(100.003);
    doEventLoop();
    EXPECT_TRUE(timers[0].runs == 3 && timers[1].runs == 1);
    EXPECT_LT(leVirtualTimeOffset(), offset + 100.001);
    double const start = Brelo::time();
    doEventLoop(0.01);
    EXPECT_GE(Brelo::time() - start, 0.0099) << "a bound is on the clock, which stays";
  });
}

TEST(LeFastForward, ACommonQueueMovesWithTheOtherTimeouts) {
  onFast(Backend::libevent, [] {
    std::string order;
    Timer before([&] { order += 'b'; });
    Timer after([&] { order += 'a'; });
    event common;
    auto const tell = [](int, short, void* told) { *static_cast<std::string*>(told) += 'c'; };
    event_assign(&common, Brelo::ev_base, -1, 0, tell, &order);
    timeval const ten{10, 0};
    event_add(&common, event_base_init_common_timeout(Brelo::ev_base, &ten));
    before.control->setTimeout(9.9);
    after.control->setTimeout(10.1);
    for (int i = 0; i < 5; ++i)
      doEventLoopInWaitfor(10.2 - leVirtualTimeOffset());
    EXPECT_EQ(order, "bca");
  });
}

TEST(LeFastForward, NothingIsSkippedWhileAnExpiredTimerHasNotRun) {
  onFast(Backend::libevent, [] {
    Timer fails([] { throw std::runtime_error("failed"); });
    Timer next;
    Timer far;
    fails.control->setTimeout(100.0);
    next.control->setTimeout(100.00003);
    far.control->setTimeout(1000.0);
    EXPECT_THROW(doEventLoopInWaitfor(5000.0), std::runtime_error);
    doEventLoopInWaitfor(5000.0);
    EXPECT_TRUE(next.runs == 1 && far.runs == 0);
    EXPECT_LT(leVirtualTimeOffset(), 101.0);
  });
}

int toldLe = 0;
int toldHost = 0;

TEST(LeFastForward, EachSwitchTellsItsOwnNotifiersAtAChangeAndRefusesTheWrongThread) {
  toldLe = toldHost = 0;
  for (bool const host : {false, true}) {
    Brelo::leRegisterFastForwardChangeNotifier([] {
      if (++toldLe == 3) throw std::runtime_error("notifier");
    });
    registerFastForwardChangeNotifier([] { ++toldHost; });
    for (bool const on : {true, true, false, false}) {
      host ? setFastForward(on) : Brelo::setLeFastForward(on);
      EXPECT_EQ(host ? fastForward() : Brelo::leFastForward(), on);
    }
    EXPECT_EQ(toldLe * 10 + toldHost, host ? 22 : 20);
  }
  EXPECT_THROW(Brelo::setLeFastForward(true), std::runtime_error);
  EXPECT_TRUE(Brelo::leFastForward());
  Brelo::setLeFastForward(false);

  auto const unchanged = [] { Brelo::setLeFastForward(false); };
  EXPECT_DEATH(onBackend(Backend::libevent, unchanged), " FastForward invoked from non-main");
  EXPECT_DEATH(onBackend(Backend::libevent, [] { setFastForward(false); }), "ThreadLocal fastF");
  EXPECT_DEATH(onBackend(Backend::libevent, [] { fastForward(); }), "ThreadLocal fastF");
}

}  // namespace
