// What ends a loop before its time, and what keeps it.
#include <event2/event_struct.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>

#include "Brelo/LibeventFactory.h"
#include "Brelo/Platform.h"
#include "Brelo/Task.h"
#include "Brelo/TaskScheduler.h"
#include "Brelo/TimerWheel.h"
#include "support/Backend.h"
#include "support/Handlers.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using Brelo::Platform::doEventLoop;
using Brelo::Platform::stopEventLoop;
using testing::MatchesRegex;

class LoopEnd : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(LoopEnd);

std::string pending() {
  std::ostringstream text;
  Brelo::Platform::pendingRender(text);
  return text.str();
}

TEST_P(LoopEnd, AStopEndsTheEntryAfterItsPassAndOnlyThat) {
  run([] {
    SocketPair pair;
    pair.send();
    Watch watch(pair.near(), true, false);  // ready at each pass
    Callback callback;
    for (bool const bounded : {false, true}) {
      watch.read.runs = 0;
      watch.read.action = [&] {
        if (watch.read.runs == 3) stopEventLoop();
      };
      bounded ? doEventLoop(1000) : doEventLoop();
      EXPECT_EQ(watch.read.runs, 3);
    }
    // Whoever else was ready in the pass is served.
    Watch other(pair.near(), true, false);
    watch.read.runs = 0;
    watch.read.action = other.read.action = stopEventLoop;
    doEventLoop();
    EXPECT_EQ(watch.read.runs + other.read.runs, 2);
    // Reads that a handler turns off are another end of a stretch of passes.
    watch.read.action = [&] {
      watch.control->setReads(false);
      stopEventLoop();
      watch.control->setReads(true);
      stopEventLoop();
    };
    doEventLoop();
    EXPECT_EQ(watch.read.runs, 2);
    // A stop is used up.
    watch.read.action = other.read.action = [] {};
    doEventLoop(0.002);
    EXPECT_GT(watch.read.runs, 3);
  });
}

TEST_P(LoopEnd, AStopBeforeTheEntryLeavesOnePassThatDoesNotWait) {
  run([] {
    Timer later;
    later.control->setTimeout(1000);
    Timer now;
    now.control->setTimeout(0);
    usleep(1000);
    stopEventLoop();
    stopEventLoop();
    doEventLoop();
    EXPECT_EQ(now.runs, 1);
    now.action = stopEventLoop;
    now.control->setTimeout(0.001);
    doEventLoop();
    EXPECT_EQ(now.runs, 2);
    // What leaves by an exception has not been stopped.
    now.action = [] {
      stopEventLoop();
      throw std::runtime_error("away");
    };
    now.control->setTimeout(0);
    EXPECT_THROW(doEventLoop(), std::runtime_error);
    doEventLoop();
  });
}

TEST(LoopEnd, AStopEndsTheInnermostEntryOnTheHost) {
  onBackend(Backend::host, [] {
    Timer outer;
    Timer inner;
    Timer last;
    bool innerReturned = false;
    inner.action = stopEventLoop;
    outer.action = [&] {
      inner.control->setTimeout(0);
      doEventLoop(1000);
      innerReturned = true;
      last.control->setTimeout(0.001);
    };
    last.action = stopEventLoop;
    outer.control->setTimeout(0);
    Timer never;
    never.control->setTimeout(1000);
    doEventLoop();
    EXPECT_TRUE(innerReturned);
    EXPECT_EQ(last.runs, 1);
  });
}

TEST(LoopEnd, AStopEndsAnEntryUnderFastForward) {
  onBackend(Backend::host, [] {
    Brelo::Platform::setFastForward(true);
    Timer timer;
    timer.action = [&] {
      if (timer.runs == 3) return stopEventLoop();
      timer.control->setTimeout(10);
    };
    timer.control->setTimeout(10);
    double const start = Brelo::time();
    doEventLoop(1e6);
    EXPECT_NEAR(Brelo::time() - start, 30, 0.5);
    Brelo::Platform::setFastForward(false);
  });
}

struct Sleeper : Brelo::TimerTask {
  using TimerTask::TimerTask;
  void taskExecute() override {}
};

struct Reader : Brelo::FileDescriptorTask {
  using FileDescriptorTask::FileDescriptorTask;
  void taskExecuteReadable() override {}
  void taskExecuteWritable() override {}
};

TEST_P(LoopEnd, WhatKeepsTheLoopIsNamed) {
  run([] {
    EXPECT_EQ(pending(), "");
    SocketPair pair;
    Timer timer;
    Callback callback;
    Watch watch(-1, true, true);
    EXPECT_EQ(pending(), "");

    timer.control->setTimeout(5);
    callback.control->requestCallback();
    watch.control->setFd(pair.near());
    auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("the root");
    auto const level = Brelo::TaskPriority::normal;
    auto const sleeper = std::make_shared<Sleeper>(root, level, "sleeper");
    sleeper->scheduleTaskDelay(2.5);
    auto const soon = std::make_shared<Sleeper>(root, level, "soon");
    soon->scheduleTaskDelay(0.005);
    SocketPair other;
    auto const reader = std::make_shared<Reader>(root, level, "reader");
    reader->taskWatchFdIs(other.near());
    auto const wheelControl = Brelo::Platform::getTimerControl(&timer, root->timerWheel());
    wheelControl->setTimeout(7);
    EXPECT_THAT(pending(), MatchesRegex("callback BreloTest::Callback due\n"
                                        "timer \"soon\" (in 0.00[0-9] s|due)\n"
                                        "timer \"sleeper\" in [12][.][0-9]* s\n"
                                        "timer BreloTest::Timer in [45][.][0-9]* s\n"
                                        "timer BreloTest::Timer in [67][.][0-9]* s\n"
                                        "descriptor [0-9]+ BreloTest::Watch reads writes\n"
                                        "descriptor [0-9]+ \"reader\" reads\n"));

    usleep(6000);
    doEventLoop(0);
    watch.control->delFd();
    soon->stopTimerTask();
    reader->scheduleTaskReadable();
    reader->taskWatchWritableIs(true);
    timer.control->delTimeout();
    wheelControl->delTimeout();
    EXPECT_THAT(pending(), MatchesRegex("callback \"the root\" due\n"
                                        "timer \"sleeper\" in [12][.][0-9]* s\n"
                                        "descriptor [0-9]+ \"reader\" reads writes\n"));
    EXPECT_EQ(Brelo::Platform::pendingCount(), 3U);
    sleeper->stopTimerTask();
    reader->taskWatchFdDel();
    doEventLoop(0.01);
    // A wheel wakes for its own sake, at most every 2.56 s: perhaps just now, for the last time.
    EXPECT_THAT(pending(), MatchesRegex("(timer of an idle wheel in [0-2][.][0-9]* s\n)?"));
    EXPECT_EQ(Brelo::Platform::pendingCount(), 0U);
  });
}

TEST(LoopEnd, StrangersAreNamedAsSuch) {
  onBackend(Backend::libevent, [] {
    Brelo::leInit();
    SocketPair pair;
    event timer;
    event watch;
    auto const nothing = [](int, short, void*) {};
    event_assign(&timer, Brelo::ev_base, -1, 0, nothing, nullptr);
    event_assign(&watch, Brelo::ev_base, pair.near(), EV_READ | EV_PERSIST, nothing, nullptr);
    timeval const seconds{5, 0};
    event_add(&timer, &seconds);
    event_add(&watch, nullptr);
    Timer asks([] {
      EXPECT_THAT(pending(), MatchesRegex("timer of another client in [45][.][0-9]* s\n"
                                          "descriptor [0-9]+ of another client reads\n"));
    });
    asks.control->setTimeout(0);
    doEventLoop(0.001);
    EXPECT_EQ(asks.runs, 1);
    event_del(&timer);
    event_del(&watch);
  });
}

}  // namespace
