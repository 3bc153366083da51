#include "Zel/System.h"

#include <time.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "Zel/internal/ActivityLoop.h"
#include "Zel/internal/SystemClock.h"

namespace Zel {
namespace {

std::int64_t nanoseconds(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// What leads from the monotonic clock to the current time. Taken first of all that the library
/// initialises, so that whatever asks for the time finds it.
[[gnu::init_priority(101)]] std::atomic<std::int64_t> clockOffset{nanoseconds(CLOCK_REALTIME) -
                                                                  nanoseconds(CLOCK_MONOTONIC)};

}  // namespace

void advanceCurrentTime(std::int64_t nanoseconds) {
  clockOffset.fetch_add(nanoseconds, std::memory_order_relaxed);
}

std::int64_t monotonicNanoseconds() {
  return nanoseconds(CLOCK_MONOTONIC);
}

namespace System {

double currentTime() {
  return timeAtMonotonic(nanoseconds(CLOCK_MONOTONIC));
}

double timeAtMonotonic(std::int64_t nanoseconds) {
  auto const offset = clockOffset.load(std::memory_order_relaxed);
  return static_cast<double>(nanoseconds + offset) * 1e-9;
}

void doRun() {
  activityLoop().run();
}

void stopRun() {
  activityLoop().stop();
}

String getenv(String const& name) {
  return String(::secure_getenv(name.str().c_str()));
}

}  // namespace System
}  // namespace Zel
