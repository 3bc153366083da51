#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "Brelo/LibeventFactory.h"
#include "Brelo/Thread.h"
#include "Brelo/TimerWheel.h"
#include "support/Backend.h"
#include "support/Handlers.h"
#include "support/TraceCapture.h"

// What the libevent backend has beyond the platform's promises.

namespace {

using namespace BreloTest;
using namespace Brelo::Platform;

TEST(Libevent, AThreadLeavesItsBaseBehindForWhatOutlivesItOnly) {
  int const lowest = SocketPair().near();  // of the numbers that are free
  std::unique_ptr<Timer> survivor;
  event_base* base = nullptr;
  for (bool const survives : {false, true}) {
    onBackend(Backend::libevent, [&] {
      Brelo::leInit();
      Brelo::leFree();  // by hand, and then there is another one
      auto timer = std::make_unique<Timer>();
      timer->control->setTimeout(0.0);
      Brelo::getTimerWheel();
      doEventLoop();
      base = Brelo::ev_base;
      if (survives) survivor = std::move(timer);
    });
    EXPECT_EQ(SocketPair().near() > lowest, survives);
  }
  survivor.reset();
  event_base_free(base);
  EXPECT_EQ(SocketPair().near(), lowest);
}

TEST(Libevent, ABaseIsMadeOnceAndStaysWhenItIsInitialisedAnew) {
  onBackend(Backend::libevent, [] {
    EXPECT_FALSE(Brelo::leInitialized());
    Brelo::leForkReinit();
    EXPECT_TRUE(Brelo::leInitialized());
    event_base* const base = Brelo::ev_base;
    Brelo::leForkReinit();
    EXPECT_EQ(Brelo::ev_base, base);
    Timer timer;
    timer.control = Brelo::getLeTimerControl(&timer);
    timer.control->setTimeout(0.0);
    Callback callback;
    EXPECT_FALSE(callback.control->pendingCallback());
    callback.control->requestCallback();
    EXPECT_TRUE(callback.control->pendingCallback());
    doEventLoop();
    EXPECT_TRUE(timer.runs == 1 && callback.runs == 1);
    EXPECT_FALSE(callback.control->pendingCallback());
  });
}

TEST(Libevent, StrictHighIsServedBeforeAllElse) {
  onBackend(Backend::libevent, [] {
    std::string order;
    auto const wheel = Brelo::getTimerWheelForTaskScheduler(eventPriorityStrictHigh);
    Timer timers[3];
    timers[1].control = getTimerControl(&timers[1], eventPriorityStrictHigh);
    timers[2].control = getTimerControl(&timers[2], wheel);
    SocketPair pair;
    Watch watch(pair.near(), false, true);
    watch.write.action = [&] { order += 'n'; };
    for (auto& timer : timers) {
      timer.action = [&] { order += &timer == timers ? 'n' : 'H'; };
      timer.control->setTimeout(0.0);
    }
    usleep(2000);
    doEventLoop();
    EXPECT_EQ(order, "HHnn");
  });
}

TEST(Libevent, TheLoopIsNotEnteredFromAHandlerAndMessagesAreTracedAsTheyAre) {
  onBackend(Backend::libevent, [] {
    TraceCapture traces("BreloLibevent");
    Timer timer([] { doEventLoop(1000.0); });
    timer.control->setTimeout(0.0);
    doEventLoop();
    EXPECT_THAT(traces.take(), testing::ContainsRegex("/0 .*cannot be entered on base:0x"));
    Brelo::le_debug_cb(2, "100%d {}");
    EXPECT_THAT(traces.take(), testing::ContainsRegex("/1 .*100%d \\{\\}\n"));
  });
}

/// libevent's memory, which has run out while this is alive.
struct NoMemory {
  NoMemory() {
    event_set_mem_functions([](std::size_t) -> void* { return nullptr; },
                            [](void*, std::size_t) -> void* { return nullptr; }, std::free);
  }
  ~NoMemory() { event_set_mem_functions(std::malloc, std::realloc, std::free); }
};

TEST(Libevent, WithoutMemoryTimersAreTracedAndWatchesLoopsAndBasesFail) {
  onBackend(Backend::libevent, [] {
    TraceCapture traces("BreloLibevent");
    SocketPair pair;
    Timer timers[20];
    {
      NoMemory const none;
      EXPECT_THROW(Watch(pair.near(), true, false), std::bad_alloc);
      EXPECT_THROW(doEventLoop(0.001), std::bad_alloc);
      for (auto& timer : timers)
        timer.control->setTimeout(0.0);
      EXPECT_THAT(traces.take(), testing::ContainsRegex("/0 .*Timer 0x[0-9a-f]+ is refused its"));
      EXPECT_EQ(timers[19].control->remainingTimeout(), never);
    }
    for (auto& timer : timers)
      timer.control->setTimeout(0.0);
    Watch watch(pair.near(), false, true);
    doEventLoop();
    EXPECT_EQ(timers[19].runs + watch.write.runs, 2);
  });
  auto const makesBase = [] {
    NoMemory const none;
    Timer();
  };
  EXPECT_DEATH(onBackend(Backend::libevent, makesBase), "Failed to create event_base");
}

TEST(Libevent, MisuseEndsTheProcess) {
  auto const dies = [](auto body, char const* text, Backend backend = Backend::libevent) {
    EXPECT_DEATH(onBackend(backend, body), text);
  };
  dies([] { Watch(1 << 20, true, false); }, "flags >= 0");
  dies([] { (Timer()), Brelo::leRegisterBase(Brelo::leCreateBase()); }, "a base:0x.* exists: 0x");
  dies([] { (Timer()), Brelo::useThreadLocalSingletons(); }, "Attempt to change", Backend::host);
}

}  // namespace
