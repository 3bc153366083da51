#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <ctime>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Zel/Activity.h"
#include "Zel/FileDescriptor.h"
#include "Zel/System.h"
#include "support/ChildProcess.h"

namespace {

/// A descriptor object with its notifiee.
struct Watch : Zel::FileDescriptor::NotifieeConst {
  using Told = std::function<void(Watch&, bool read)>;

  explicit Watch(
      int number, Told doing = [](Watch&, bool) {})
      : told(std::move(doing)) {
    notifierIs(object);
    isRegisteredNotifieeIs(true);
    object->hasNotificationActiveIs(true);
    object->notifyOnReadableIs(true);
    object->descriptorIs(number);
  }
  void onAttribute(Zel::AttributeId id, void const*) override {
    told(*this, id == Zel::readableCountAttribute);
    ++times;  // reaches for this object, which the action may have released
  }

  Zel::Ptr<Zel::FileDescriptor> object{new Zel::FileDescriptor("test")};
  Told told;
  int times = 0;
  bool readDue = false, writeDue = false;  // in this pass
  int mayBeLate = 0;                       // for so many passes more
};
using WatchPtr = Zel::Ptr<Watch>;

void runFor(double seconds) {
  Zel::activityManager()->executionTimeIs(seconds);
  Zel::System::doRun();
}

/// Watches on a few numbers, changed at random between and inside handlers. Each pass must tell
/// exactly what poll() finds at its beginning, but for what has been changed since then, and for
/// input that may be told later.
struct RandomWatches {
  explicit RandomWatches(std::size_t count) : watches(count) {
    int hungUp[2], broken[2];
    EXPECT_EQ(pipe(hungUp) + pipe(broken), 0);
    close(hungUp[1]);
    close(broken[0]);
    files = {event, open("/proc/self/exe", O_RDONLY), hungUp[0], broken[1]};
    for (WatchPtr& watch : watches)
      renew(watch);
  }

  void run(int passes) {
    for (; passes > 0 && !testing::Test::HasFailure(); --passes) {
      change();
      for (WatchPtr const& watch : watches) {
        auto const& object = *watch->object;
        pollfd found{object.descriptor(), POLLIN | POLLOUT, 0};
        poll(&found, 1, 0);
        bool const broken = (found.revents & (POLLHUP | POLLERR)) != 0;
        watch->readDue = object.notifyOnReadable() && (broken || (found.revents & POLLIN) != 0);
        watch->writeDue = object.notifyOnWritable() && (broken || (found.revents & POLLOUT) != 0);
      }
      runFor(0);
      for (WatchPtr const& watch : watches) {
        bool const late = watch->mayBeLate > 0 && watch->mayBeLate-- > 0;
        EXPECT_FALSE((watch->readDue && !late) || watch->writeDue);
      }
    }
  }

  void renew(WatchPtr& watch) {
    watch = new Watch(-1, [this](Watch& told, bool read) {
      EXPECT_TRUE(std::exchange(read ? told.readDue : told.writeDue, false));
      EXPECT_FALSE(told.readDue) << "comes first";
      if (random() % 4 == 0) change();
    });
  }

  static void bind(Watch& watch, int number) {
    watch.readDue = watch.writeDue = false;
    watch.object->descriptorIs(number);
  }

  void change() {
    WatchPtr& watch = watches[random() % watches.size()];
    auto& object = *watch->object;
    int const number = numbers[random() % numbers.size()];
    bool const on = random() % 3 != 0;
    auto const kind = random() % 5;
    if (kind == 0) {
      on ? bind(*watch, number) : renew(watch);
      if (number == numbers[0]) {
        EXPECT_THROW(bind(*watch, 1'000'000), std::system_error);
      }
    } else if (kind == 1) {
      bool const again = on && random() % 2 == 0;
      int const passes = static_cast<int>(random() % 20);
      if (object.notifyOnReadable() != on) {
        watch->readDue = false;
        watch->mayBeLate = again ? passes : 0;
      }
      again ? object.notifyOnReadableAgain(passes) : object.notifyOnReadableIs(on);
    } else if (kind == 2) {
      watch->writeDue &= object.notifyOnWritable() == on;
      object.notifyOnWritableIs(on);
    } else if (kind == 3) {
      eventfd_t taken;
      on ? eventfd_write(event, 1) : eventfd_read(event, &taken);
    } else {
      // Another file under a watched number, whose watchers unbind too late, or stay and are
      // helped by the next one to bind.
      dup2(files[random() % files.size()], number);
      for (WatchPtr const& each : watches)
        if (on && each->object->descriptor() == number) bind(*each, -1);
      bind(*watch, number);
    }
  }

  std::mt19937 random;
  int const event = eventfd(0, EFD_NONBLOCK);
  std::vector<int> files, numbers{dup(event), dup(event), dup(event), dup(event)};
  std::vector<WatchPtr> watches;
};

TEST(ZelFileDescriptor, RandomChangesAgreeWithPollAlsoInAForkedChild) {
  RandomWatches(3).run(10000);  // seldom more than one on a number
  RandomWatches watches(12);
  watches.run(10000);
  EXPECT_TRUE(BreloTest::passesInChild([&] { watches.run(4000); }));
  EXPECT_TRUE(BreloTest::passesInChild([&] { watches.watches.clear(); }));
  watches.run(4000);
}

struct ClockWatch : Zel::Clock::NotifieeConst {
  explicit ClockWatch(std::function<void()> doing) : told(std::move(doing)) {
    notifierIs(Zel::activityManager()->clock());
    isRegisteredNotifieeIs(true);
  }
  void onAttribute(Zel::AttributeId, void const*) override { told(); }
  std::function<void()> told;
};

TEST(ZelFileDescriptor, AReadinessAndTheCallThatItAsksForShareAPass) {
  std::string told;
  int const event = eventfd(1, EFD_NONBLOCK);
  Zel::Ptr<ClockWatch> const clock(new ClockWatch([&] {
    told += 'c';
    clock->timeMinIs(0.0);  // belongs to the next pass
    eventfd_t taken;
    eventfd_read(event, &taken);
  }));
  WatchPtr const watch(new Watch(event, [&](Watch&, bool) {
    told += 'd';
    clock->timeMinIs(0.0);
  }));
  runFor(0);
  EXPECT_EQ(told, "dc");
  runFor(0);
  EXPECT_EQ(told, "dcc");
}

TEST(ZelFileDescriptor, WhoThrowsAtEachPassKeepsNobodyFromBeingTold) {
  std::vector<int> times(4);
  auto const tell = [&](std::size_t who) {
    ++times[who];
    throw std::runtime_error("told");
  };
  Zel::Ptr<ClockWatch> const clock(new ClockWatch([&] { clock->timeMinIs(0.0), tell(0); }));
  clock->timeMinIs(0.0);
  std::vector<WatchPtr> watches;
  for (std::size_t i = 1; i < times.size(); ++i)
    watches.push_back(new Watch(eventfd(1, 0), [&tell, i](Watch&, bool) { tell(i); }));
  for (int runs = 0; runs < 8; ++runs)
    EXPECT_THROW(runFor(0), std::runtime_error);
  EXPECT_EQ(times, std::vector<int>(4, 2));
}

TEST(ZelFileDescriptor, ARunInsideAHandlerTakesOverWhatThePassHasFound) {
  std::vector<WatchPtr> watches;
  for (int i = 0; i < 3; ++i) {
    watches.push_back(new Watch(eventfd(1, EFD_NONBLOCK), [&](Watch& told, bool) {
      eventfd_t taken;
      EXPECT_EQ(eventfd_read(told.object->descriptor(), &taken), 0) << "told of what has gone";
      runFor(0);
    }));
  }
  runFor(0);
  for (WatchPtr const& watch : watches)
    EXPECT_EQ(watch->times, 1);
}

TEST(ZelFileDescriptor, NumberClosedTooEarlyKeepsNothingBusy) {
  int const number = eventfd(1, 0);
  EXPECT_GE(dup(number), 0);  // keeps the file open and readable
  WatchPtr watch(new Watch(number));
  WatchPtr const elsewhere(new Watch(eventfd(0, 0)));
  runFor(0);
  close(number);
  watch = nullptr;
  std::clock_t const before = std::clock();
  runFor(0.05);
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 40);
}

TEST(ZelFileDescriptor, ReadyOneComesBeforeAMoveOfVirtualTime) {
  Zel::activityManager()->virtualTimeIs(true);
  double const start = Zel::System::currentTime();
  WatchPtr const watch(new Watch(eventfd(1, 0), [&](Watch& told, bool) {
    EXPECT_LT(Zel::System::currentTime(), start + 50);
    told.object->descriptorIs(-1);
  }));
  runFor(100);
  EXPECT_EQ(watch->times, 1);
}

TEST(ZelFileDescriptor, VirtualTimeDoesNotMoveToTheEndOfTheClock) {
  Zel::activityManager()->virtualTimeIs(true);
  double const start = Zel::System::currentTime();
  Zel::Ptr<ClockWatch> const far(new ClockWatch([] { FAIL() << "told before its time"; }));
  far->timeMinIs(1e300);
  runFor(100);
  int const real = timerfd_create(CLOCK_MONOTONIC, 0);
  itimerspec const soon{{}, {0, 2'000'000}};
  EXPECT_EQ(timerfd_settime(real, 0, &soon, nullptr), 0);
  WatchPtr const watch(new Watch(real, [](Watch&, bool) { throw std::runtime_error("told"); }));
  EXPECT_THROW(runFor(1e300), std::runtime_error);
  EXPECT_NEAR(Zel::System::currentTime(), start + 100, 50);
}

}  // namespace
