#pragma once

#include <cstdint>

namespace Zel {

/// Moves `System::currentTime()` forward, for every thread. Virtual time is made
/// of this. Not below zero; the sum stays within what 64 bits of nanoseconds hold.
void advanceCurrentTime(std::int64_t nanoseconds);

/// The monotonic clock.
std::int64_t monotonicNanoseconds();

}  // namespace Zel
