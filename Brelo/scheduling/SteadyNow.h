#pragma once

#include <time.h>

#include <chrono>

#include "Brelo/TaskTimeDuration.h"
#include "Brelo/platform/Ticks.h"
#include "Brelo/scheduling/TickClock.h"

/// @file
/// The scheduler's clock.

namespace Brelo::Impl {

/// The calling thread's. It lies where no call is needed to find it, and `__thread` says that none
/// is needed to make it.
[[gnu::visibility("hidden")]] extern __thread TickClock tickClock
    [[gnu::tls_model("initial-exec")]];

/// The same as `steadyNow`, read from the clock itself: for timers, which must not be early.
inline TaskTimePoint steadyClockNow() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  TaskTimePoint const time{std::chrono::seconds(now.tv_sec) +
                           std::chrono::nanoseconds(now.tv_nsec)};
  tickClock.notBefore(time.time_since_epoch().count());
  return time;
}

/// For `steadyNow`: reads both and tells the calling thread's `tickClock`.
TaskTimePoint steadyNowAnew();

/// `std::chrono::steady_clock::now()`, as TickClock knows it where it does.
[[gnu::always_inline]] inline TaskTimePoint steadyNow() {
  if (__builtin_expect(!tickClock.knowsAny(), 0)) return steadyNowAnew();
  std::uint64_t const now = ticks();
  if (__builtin_expect(!tickClock.knows(now), 0)) return steadyNowAnew();
  return TaskTimePoint(std::chrono::nanoseconds(tickClock.at(now)));
}

}  // namespace Brelo::Impl
