#pragma once

#include <x86intrin.h>

#include <atomic>
#include <cstdint>

#include "Zel/Export.h"

/// The processor's time-stamp counter and its rate.
///
/// Ticks are cheap and rough: the read is not ordered with the instructions around it, and
/// counters of different processors may differ. For deadlines use a clock.
namespace Zel::Rdtsc {

namespace Impl {
extern ZEL_EXPORT std::atomic<std::uint64_t> ticksIn500Usec;  ///< 0 until calibrated
/// Measures, unless another thread has done so first; the value kept.
ZEL_EXPORT std::uint64_t calibrate();
}  // namespace Impl

/// The counter now, on the processor that the thread runs on.
inline std::uint64_t read() {
  return __rdtsc();
}

/// Ticks in about 500 microseconds of CLOCK_MONOTONIC, at least 1 and the same value for the
/// life of the process. The first call spins for about 100 microseconds; any thread may make it.
/// On a counter that stands still the value is 1.
inline std::uint64_t approxTicksIn500Usec() {
  std::uint64_t const ticks = Impl::ticksIn500Usec.load(std::memory_order_relaxed);
  return ticks != 0 ? ticks : Impl::calibrate();
}

/// The kernel's own monotonic clock goes by the counter, which is then the same on all processors
/// and of one rate. Asks the kernel each time.
ZEL_EXPORT bool isClock();

}  // namespace Zel::Rdtsc
