#include "Brelo/scheduling/SteadyNow.h"

#include <atomic>

namespace Brelo {

namespace {

std::atomic<std::uint64_t> knownRate{0};

}  // namespace

__thread Impl::TickClock Impl::tickClock;

TaskTimePoint Impl::steadyNowAnew() {
  static bool const counterIsClock = Zel::Rdtsc::isClock();
  if (!counterIsClock) return steadyClockNow();
  if (tickClock.rate() == 0) tickClock.rateIs(knownRate.load(std::memory_order_relaxed));
  std::uint64_t const before = ticks();
  TaskTimePoint const now = steadyClockNow();
  std::int64_t const time = tickClock.readingIs(before, now.time_since_epoch().count(), ticks());
  knownRate.store(tickClock.rate(), std::memory_order_relaxed);
  return TaskTimePoint(std::chrono::nanoseconds(time));
}

}  // namespace Brelo
