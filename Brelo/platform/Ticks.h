#pragma once

#include <cstdint>

#include "Zel/Rdtsc.h"

/// @file
/// The processor's time-stamp counter, for who wants to know cheaply whether it is worth to look
/// at a clock.

namespace Brelo::Impl {

inline std::uint64_t ticks() {
  return Zel::Rdtsc::read();
}

inline std::uint64_t approxTicksIn500Usec() {
  return Zel::Rdtsc::approxTicksIn500Usec();
}

}  // namespace Brelo::Impl
