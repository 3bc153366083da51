#pragma once

#include <time.h>

#include "Brelo/TaskTimeDuration.h"

/// @file
/// The scheduler's clock.

namespace Brelo::Impl {

/// `std::chrono::steady_clock::now()`, without the detour through the C++ library.
inline TaskTimePoint steadyNow() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return TaskTimePoint(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
}

}  // namespace Brelo::Impl
