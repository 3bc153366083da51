#include "Brelo/scheduling/TickClock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <random>
#include <thread>

#include "Brelo/scheduling/SteadyNow.h"

namespace {

using Brelo::Impl::TickClock;

/// A clock and a counter that both go on, and who asks for the time all the while.
struct Machine {
  std::int64_t now() const { return static_cast<std::int64_t>(nanos); }
  std::uint64_t ticks() const { return static_cast<std::uint64_t>(count); }
  void passes(double nanoseconds) {
    nanos += nanoseconds;
    count += nanoseconds * ticksPerNano;
  }

  /// The time as the clock tells it that is tested, and how far that is behind.
  std::int64_t askedTime() {
    if (clock.knows(ticks())) {
      ++known;
      return clock.at(ticks());
    }
    std::uint64_t const before = ticks();
    passes(5);
    std::int64_t const reading = now();
    passes(interruption);
    return clock.readingIs(before, reading, ticks());
  }
  void ask(int times) {
    for (; times > 0; --times) {
      passes(50 + static_cast<double>(random() % 300));
      std::int64_t const told = askedTime();
      EXPECT_GE(told, latest);
      latest = told;
      behind = std::max(behind, now() - told);
      ahead = std::max(ahead, told - now());
    }
  }
  /// As `ask`, of figures that begin anew.
  void look(int times) {
    behind = ahead = known = 0;
    ask(times);
  }

  TickClock clock;
  double nanos = 5e15;
  double count = 7e9;
  double ticksPerNano = 2.5;
  double interruption = 15;  // between a reading of the clock and one of the counter
  std::int64_t latest = 0, behind = 0, ahead = 0, known = 0;
  std::mt19937 random;
};

TEST(TickClock, KnowsTheTimeOnceItHasMeasuredTheCounter) {
  for (double const ticksPerNano : {0.7, 2.5, 6.0}) {
    Machine machine;
    machine.ticksPerNano = ticksPerNano;
    machine.look(40'000);  // some 8 ms
    EXPECT_EQ(machine.known, 0);
    machine.look(40'000);
    EXPECT_GT(machine.known, 20'000);
    for (int round = 0; round < 50; ++round) {
      machine.look(20'000);
      EXPECT_GT(machine.known, 19'800);  // but for one in 50 us
      EXPECT_LE(machine.behind, 15 + 25 + 1);
      EXPECT_LE(machine.ahead, 25 + 1);
      if (round % 10 == 0) machine.passes(3e9);                      // idle
      machine.ticksPerNano *= round % 2 == 0 ? 1.0005 : 1 / 1.0005;  // steered
    }
  }
}

TEST(TickClock, TakesTheRateOfAnotherThread) {
  Machine machine;
  machine.look(100'000);
  Machine other;
  other.clock.rateIs(machine.clock.rate());
  other.look(1000);
  EXPECT_GT(other.known, 900);
  EXPECT_LE(other.behind, 30);
}

TEST(TickClock, DoesNotGoByAReadingThatWasInterrupted) {
  Machine machine;
  machine.look(100'000);
  for (double const interruption : {300, 3000}) {
    machine.interruption = interruption;
    machine.look(1000);
    EXPECT_EQ(machine.known > 300, interruption < 400);  // at the end of the latest 50 us
    EXPECT_LE(machine.behind, interruption + 26);
  }
  machine.interruption = 15;
  machine.look(1000);
  EXPECT_GT(machine.known, 900);
}

TEST(TickClock, StartsAnewWhereTheCounterDisagrees) {
  Machine machine;
  machine.look(100'000);
  auto const startsAnew = [&] {
    machine.look(1000);
    EXPECT_LE(machine.known, 500);
    EXPECT_LE(machine.behind + machine.ahead, 50'000 * 2) << "for 50 us";
    machine.look(100'000);
    machine.look(10'000);
    EXPECT_GT(machine.known, 9'900);
    EXPECT_LE(machine.behind, 30);
  };
  machine.count += 3600e9;  // suspended, which the clock does not count
  startsAnew();
  machine.ticksPerNano *= 0.5;
  startsAnew();
  machine.count = 1000;  // resumed elsewhere
  startsAnew();
}

TEST(TickClock, DoesNotGoForLongByARateThatWasMeasuredAcrossASuspension) {
  Machine machine;
  machine.look(20'000);  // some 4 ms
  machine.count += 3600e9;
  machine.look(100'000);
  EXPECT_LE(machine.behind, 500'000 / 2.5 + 400);
  machine.look(10'000);
  EXPECT_GT(machine.known, 9'900);
  EXPECT_LE(machine.behind, 30);
}

TEST(TickClock, IsTheSteadyClockOnEveryThread) {
  auto const compare = [] {
    using Clock = std::chrono::steady_clock;
    auto const end = Clock::now() + std::chrono::milliseconds(60);
    Clock::time_point latest;
    for (auto before = Clock::now(); before < end && !testing::Test::HasFailure();) {
      auto const now = Brelo::Impl::steadyNow();
      auto const after = Clock::now();
      EXPECT_GE(now, std::max(latest, before - std::chrono::microseconds(2)));
      EXPECT_LE(now, after + std::chrono::nanoseconds(50));
      latest = Brelo::Impl::steadyClockNow();
      EXPECT_GE(latest, after);
      before = Clock::now();
      EXPECT_LE(latest, before);
    }
  };
  std::thread other(compare);
  compare();
  other.join();
}

}  // namespace
