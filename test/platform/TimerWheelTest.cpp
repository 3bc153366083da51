#include "Brelo/TimerWheel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Zel/Activity.h"
#include "support/Backend.h"
#include "support/FailingMemory.h"
#include "support/Handlers.h"

namespace {

using namespace BreloTest;
using Brelo::Platform::doEventLoop;

struct Event : Doing, Brelo::TimerWheelEvent {
  void timeout() override { run(); }
};

auto newWheel() {
  return Brelo::getTimerWheelForTaskScheduler(Brelo::Platform::eventPriorityDefault);
}

class TimerWheel : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(TimerWheel);

TEST_P(TimerWheel, FiresInTheOrderOfExactTimesAndNeverEarly) {
  bool const host = GetParam() == Backend::host;
  Zel::activityManager()->virtualTimeIs(host);
  run([&] {
    std::mt19937 random(4711);
    // Virtual time takes the host over days, libevent lives through some milliseconds.
    std::uniform_real_distribution<> exponents(-7.0, host ? 6.0 : -2.2);
    auto const wheel = newWheel();
    Event events[60];
    std::vector<double> due(60, never);
    int left = 4000;
    auto const change = [&] {
      std::size_t const i = random() % 60;
      bool const stops = random() % 4 == 0;
      events[i].setTimeout(wheel, stops ? never : std::pow(10.0, exponents(random)));
      due[i] = events[i].expirationTime();
    };
    for (std::size_t i = 0; i < 60; ++i) {
      events[i].action = [&, i] {
        EXPECT_GE(Brelo::time(), due[i]);
        EXPECT_EQ(due[i], *std::min_element(due.begin(), due.end()));
        due[i] = never;
        for (int changes = 3; changes > 0 && left > 0; --changes, --left)
          change();
      };
      change();
    }
    doEventLoop();  // ends when the master timer has been disarmed
    EXPECT_EQ(*std::min_element(due.begin(), due.end()), never);
  });
  Zel::activityManager()->virtualTimeIs(false);
}

/// Starts `event` so that the wheel has released it and its exact time is still to come.
void holdBack(Event& event, std::shared_ptr<Brelo::TimerWheel> const& wheel) {
  do {
    event.setTimeout(wheel, 0.009);
    doEventLoop(0.0);
  } while (event.state() != Brelo::TimerWheelState::inTimersExpiryingSoon);
}

TEST(TimerWheelEvent, CanBeStoppedWhenTheWheelHasReleasedIt) {
  Event event;
  auto const wheel = newWheel();
  holdBack(event, wheel);
  event.runs = 0;
  event.delTimeout(wheel);
  doEventLoop();
  EXPECT_EQ(event.runs, 0);
}

TEST_P(TimerWheel, OfOneExactTimeFireInTheOrderOfStartingAndStayBehindAnException) {
  run([] {
    double const sameTime = -1e17;  // the present adds nothing to it
    auto const wheel = newWheel();
    std::string fired;
    Event events[4];
    for (auto& event : events) {
      event.action = [&] {
        fired += "abcd"[&event - events];
        events[2].delTimeout(wheel);
        if (fired == "ab") throw std::runtime_error("rises");
      };
      event.setTimeout(wheel, sameTime);
    }
    EXPECT_THROW(doEventLoop(), std::runtime_error);
    doEventLoop();
    EXPECT_EQ(fired, "ab");
    events[0].setTimeout(wheel, sameTime);  // earlier than the wheel waits for
    doEventLoop();
    EXPECT_EQ(fired, "abda");
  });
}

TEST_P(TimerWheel, LosesNoTimerWhenMemoryRunsOutAndGivesMemoryBackAfterABurst) {
  run([] {
    auto const wheel = newWheel();
    std::vector<Event> events(5000);
    std::vector<Event*> fired;
    for (auto& event : events)
      event.action = [&] { fired.push_back(&event); };
    fired.reserve(events.size());
    bool failed = true;
    for (unsigned long nth = 1; failed; nth += nth < 50 ? 1 : 500) {
      fired.clear();
      std::size_t const before = liveBytes();
      // Three quarters of them at one time, the others at times of their own.
      for (std::size_t i = 0; i < events.size(); ++i)
        events[i].setTimeout(wheel, i % 4 != 0 ? -1e17 : -static_cast<double>(i));
      FailingMemory const memory(nth);
      try {
        doEventLoop();
      } catch (std::bad_alloc const&) {
      }
      failed = memory.failed();
      doEventLoop();
      ASSERT_EQ(fired.size(), events.size());
      EXPECT_TRUE(std::is_sorted(fired.begin(), fired.begin() + 3750));
      EXPECT_TRUE(std::is_sorted(fired.rbegin(), fired.rbegin() + 1250));
      EXPECT_LT(liveBytes(), before + 150'000);
    }
  });
}

TEST_P(TimerWheel, AHandlerMayLetGoOfItAndThrow) {
  run([] {
    for (bool const throws : {false, true}) {
      Timer timer;
      timer.control = Brelo::Platform::getTimerControl(&timer, newWheel());
      timer.action = [&] {
        timer.control.reset();
        if (throws) throw std::runtime_error("gone");
      };
      timer.control->setTimeout(0.0);
      try {
        doEventLoop();
      } catch (std::runtime_error const&) {
        EXPECT_TRUE(throws);
      }
      EXPECT_EQ(timer.runs, 1);
    }
  });
}

TEST(TimerWheel, IsSharedAndSaysWhereATimerIs) {
  auto const wheel = Brelo::getTimerWheel();
  EXPECT_EQ(Brelo::getTimerWheel(), wheel);
  Timer timer;
  timer.control = Brelo::Platform::getTimerControl(&timer, wheel);
  EXPECT_EQ(timer.control->remainingTimeout(), never);
  timer.control->setTimeout(60.0);
  EXPECT_NEAR(timer.control->remainingTimeout(), 60.0, 1.0);
  timer.control->delTimeout();
  Event event;
  EXPECT_EQ(event.timerName(), "(anonymous namespace)::Event");
  std::string states;
  for (int state = 0; state < 4; ++state)
    states += timerWheelStateToString(static_cast<Brelo::TimerWheelState>(state)) + ' ';
  EXPECT_EQ(states, "notLinked inTimerWheel inTimersExpiryingSoon unknownState ");
}

TEST(TimerWheel, MisuseEndsTheProcess) {
  auto wheel = newWheel();
  Event event;
  EXPECT_DEATH(
      (event.setTimeout(wheel, 9.0), event.stateIs(Brelo::TimerWheelState::inTimersExpiryingSoon)),
      "State change inTimerWheel -> inTimersExpiryingSoon must go via notLinked");
  EXPECT_DEATH(event.stateIs(static_cast<Brelo::TimerWheelState>(3)), "invalid state 3");
  EXPECT_DEATH(Event().setTimeout(wheel, 9.0), "destroyed while inTimerWheel");
  EXPECT_DEATH((holdBack(event, wheel), wheel.reset()), "Destroyed while non-empty");
  EXPECT_DEATH(Brelo::Platform::getTimerControl(nullptr, nullptr), "Need a TimerWheel");
  EXPECT_DEATH(event.setTimeout(wheel, never - never), "TimerWheel::timerStart.*not a number");
}

}  // namespace
