#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Zel/Activity.h"
#include "Zel/FileDescriptor.h"
#include "Zel/System.h"
#include "support/ChildProcess.h"

namespace {

using Zel::Ptr;
using namespace Zel::System;

constexpr double never = std::numeric_limits<double>::infinity();

struct Timer : Zel::Clock::NotifieeConst {
  void onAttribute(Zel::AttributeId, void const*) override { told(); }
  std::function<void()> told;
};

Ptr<Timer> timerAt(double seconds, std::function<void()> told) {
  Ptr<Timer> made(new Timer);
  made->told = std::move(told);
  made->notifierIs(Zel::activityManager()->clock());
  made->isRegisteredNotifieeIs(true);
  made->timeMinIs(seconds);
  return made;
}

Zel::ActivityLock& activityLock() {
  return *Zel::ActivityImplFacility::activityManagerSm()->activityLock();
}

struct ZelActivity : testing::Test {
  ~ZelActivity() override { Zel::activityManager()->virtualTimeIs(false); }
  std::string told;
};

TEST_F(ZelActivity, RandomArmingAgreesWithASortedModel) {
  Zel::activityManager()->virtualTimeIs(true);
  std::mt19937 random;
  std::vector<std::pair<double, unsigned>> wishes(150, {never, 0});  // time and order of asking
  std::vector<Ptr<Timer>> timers(wishes.size());
  unsigned asked = 0, runs = 0;
  double const start = currentTime();
  std::function<void()> const change = [&] {
    std::size_t const i = random() % wishes.size();
    // Whole thousands of seconds to come, so that the real time that passes decides nothing.
    double const next = std::floor((currentTime() - start) / 1000) + 1 + random() % 30;
    wishes[i] = {random() % 4 == 0 ? never : start + 1000 * next, ++asked};
    if (timers[i] && random() % 8 != 0) return timers[i]->timeMinIs(wishes[i].first);
    timers[i] = timerAt(wishes[i].first, [&, i] {
      EXPECT_GE(currentTime(), wishes[i].first);
      for (auto const& other : wishes)
        EXPECT_GE(other, wishes[i]);
      wishes[i].first = never;
      for (int changes = ++runs < 3000 ? 2 : 0; changes > 0 && !HasFailure(); --changes)
        change();
    });
  };
  for (int i = 0; i < 300; ++i)
    change();
  doRun();
  for (auto const& wish : wishes)
    EXPECT_EQ(wish.first, never);
}

TEST_F(ZelActivity, PastTimesBelongToTheNextPassEarliestFirst) {
  Ptr<Timer> const b = timerAt(0.0, [&] { told += 'b'; });
  Ptr<Timer> const again = timerAt(-5.0, [&] {
    told += told.empty() ? 'a' : 'd';
    if (told == "a") again->timeMinIs(-never);
  });
  Ptr<Timer> const c = timerAt(0.0, [&] { told += 'c'; });
  doRun();
  EXPECT_EQ(told, "abcd");
}

TEST_F(ZelActivity, ExceptionsInnerRunsAndForksLeaveTheLoopInOrder) {
  Ptr<Timer> const a = timerAt(0.0, [&] {
    told += '(';
    EXPECT_THROW(doRun(), std::runtime_error);
    EXPECT_TRUE(BreloTest::passesInChild([] { EXPECT_FALSE(activityLock().lock()); }));
    told += ')';
    throw std::runtime_error("a");
  });
  Ptr<Timer> const b = timerAt(0.0, [&] {
    told += 'b';
    throw std::runtime_error("b");
  });
  Ptr<Timer> const d = timerAt(0.0, [&] { told += 'd'; });
  EXPECT_THROW(doRun(), std::runtime_error);
  EXPECT_FALSE(activityLock().heldByThisThread());
  Ptr<Timer> const c = timerAt(-1.0, [&] { told += 'c'; });
  doRun();
  EXPECT_EQ(told, "(b)cd");
}

TEST_F(ZelActivity, ANotifieeThatIsLetGoOfWhileItIsToldEndsAfterwards) {
  auto const life = std::make_shared<std::string>();
  Ptr<Timer> timer;
  timer = timerAt(0.0, [&, life] {
    *life += timer ? '(' : '-';
    if (!timer) return;
    timer->timeMinIs(0.0);
    timer = nullptr;
    doRun();  // tells it once more
    *life += ')';
  });
  doRun();
  EXPECT_EQ(*life, "(-)");
  EXPECT_EQ(life.use_count(), 1) << "it has gone with what it held";
}

TEST_F(ZelActivity, RunLastsForItsExecutionTimeOnceAndSignalsDoNotEndIt) {
  std::signal(SIGALRM, [](int) {});
  ualarm(2000, 2000);
  double const start = currentTime();
  Ptr<Timer> const timer = timerAt(start + 0.2, [&] { told = "late"; });
  Zel::activityManager()->executionTimeIs(0.015);
  doRun();
  EXPECT_GE(currentTime(), start + 0.015);
  EXPECT_EQ(told, "");
  doRun();
  EXPECT_GE(currentTime(), start + 0.2);
  ualarm(0, 0);
}

TEST_F(ZelActivity, WaitsHaveNoSlackAndTheThreadAndItsChildrenKeepTheirOwn) {
  auto const slack = [] { return prctl(PR_GET_TIMERSLACK); };
  int const own = 5'000'000;
  prctl(PR_SET_TIMERSLACK, own);
  double least = never, due = 0;
  Ptr<Timer> const timer = timerAt(0.0, [&] {
    if (due != 0) least = std::min(least, currentTime() - due);
    timer->timeMinIs(due = currentTime() + 0.001);
    if (told.size() < 6) told += 't';
    if (told.size() < 6) return;
    EXPECT_TRUE(BreloTest::passesInChild([&] { EXPECT_EQ(slack(), own); }));
    throw std::runtime_error("told");
  });
  EXPECT_THROW(doRun(), std::runtime_error);
  EXPECT_LT(least, 0.0025);
  EXPECT_EQ(slack(), own);
  timer->told = [&] { prctl(PR_SET_TIMERSLACK, 7); };
  doRun();
  EXPECT_EQ(slack(), 7) << "changed by a handler";
}

TEST_F(ZelActivity, RunWithoutAPauseSharesTheLockAndEndsInTime) {
  struct Watch : Zel::FileDescriptor::NotifieeConst {
    void onAttribute(Zel::AttributeId, void const*) override { told(); }
    std::function<void()> told;
  };
  for (std::string const busy : {"clock", "virtual time", "readable", "unpollable"}) {
    Zel::activityManager()->virtualTimeIs(busy == "virtual time");
    std::atomic<int> taken = 0;
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    auto const endIfTaken = [&] {
      if (taken == 20 || std::chrono::steady_clock::now() > end) throw std::runtime_error("end");
    };
    Ptr<Zel::FileDescriptor> const object(new Zel::FileDescriptor("busy"));
    Ptr<Watch> const watch(new Watch);
    watch->told = endIfTaken;
    watch->notifierIs(object);
    watch->isRegisteredNotifieeIs(true);
    object->hasNotificationActiveIs(true);
    object->notifyOnReadableIs(true);
    Ptr<Timer> const timer = timerAt(never, [&] {
      timer->timeMinIs(busy == "clock" ? 0.0 : currentTime() + 1.0);
      endIfTaken();
    });
    if (busy == "readable") {
      object->descriptorIs(eventfd(1, 0));
    } else if (busy == "unpollable") {
      object->descriptorIs(open("/proc/self/exe", O_RDONLY));
    } else {
      timer->timeMinIs(0.0);
    }

    std::thread other([&] {
      for (; taken < 20; ++taken) {
        EXPECT_TRUE(activityLock().lock());
        activityLock().unlock();
      }
    });
    EXPECT_THROW(doRun(), std::runtime_error);
    EXPECT_EQ(taken, 20) << busy;
    other.join();
  }
  Ptr<Timer> const again = timerAt(0.0, [&] { again->timeMinIs(0.0); });
  Zel::activityManager()->executionTimeIs(0.003);
  doRun();
}

TEST(ZelPtr, CountsOnEveryThread) {
  Ptr<Timer> const timer = timerAt(never, [] {});
  auto const copy = [&] {
    for (int i = 0; i < 20000; ++i)
      Ptr<Timer> const more(timer);
  };
  std::thread other(copy);
  copy();
  other.join();
  EXPECT_EQ(timer->references(), 1U);
}

}  // namespace
