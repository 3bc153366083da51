#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace Brelo::Impl {

/// CLOCK_MONOTONIC in nanoseconds between two readings of it, by the time-stamp counter, which
/// costs half as much to read. It is told the readings and holds no clock itself; one for each
/// thread.
///
/// It knows the time for 50 microseconds from a reading, and the counter's rate from readings over
/// ten milliseconds and more. What it gives is never before what it gave last, behind the clock by
/// what lies between a reading of the clock and one of the counter, as a rule 15 ns and a thousand
/// ticks at most, and behind or ahead by what the rate may change in 50 microseconds: 25 ns, as the
/// kernel steers its clock by 500 ppm at most.
class TickClock {
 public:
  /// It knows the time at some counts.
  bool knowsAny() const { return span_ != 0; }
  /// It knows the time at that count.
  bool knows(std::uint64_t ticks) const { return ticks - ticks_ < span_; }
  /// The time at a count at which it knows it.
  std::int64_t at(std::uint64_t ticks) {
    auto const passed = static_cast<std::int64_t>(((ticks - ticks_) * rate_) >> rateBits);
    return latest_ = std::max(latest_, nanos_ + passed);
  }
  /// A reading of the clock without one of the counter: nothing before that is given any more.
  void notBefore(std::int64_t nanos) { latest_ = std::max(latest_, nanos); }
  /// The counter's rate, nanoseconds in 2^32 ticks; 0 until it is known, and when a reading does
  /// not agree with it. That of another thread's will do.
  /// @{
  std::uint64_t rate() const { return rate_; }
  void rateIs(std::uint64_t rate) { rate_ = rate; }
  /// @}
  /// A reading of the clock, between two of the counter. Returns the time to go by.
  std::int64_t readingIs(std::uint64_t before, std::int64_t nanos, std::uint64_t after) {
    span_ = 0;
    if (after - before <= widest) anchor(after, nanos);
    return latest_ = std::max(latest_, nanos);
  }

 private:
  static constexpr unsigned rateBits = 32;
  // Between two readings of the counter. One of the clock takes 50 to 100: where there are more,
  // something came between.
  static constexpr std::uint64_t widest = 1'000;
  // More than any processor counts in 50 microseconds. A rate that was measured across a suspension
  // is not gone by for longer.
  static constexpr std::uint64_t longestSpan = 500'000;

  void anchor(std::uint64_t ticks, std::int64_t nanos) {
    if (rate_ != 0 && baseTicks_ != 0 && !agrees(ticks, nanos)) rate_ = baseTicks_ = 0;
    if (baseTicks_ == 0) baseAt(ticks, nanos);
    ticks_ = ticks;
    nanos_ = nanos;
    double const passed = static_cast<double>(nanos - baseNanos_);
    if (passed >= 10e6) {
      double const rate = passed / static_cast<double>(ticks - baseTicks_);
      rate_ = static_cast<std::uint64_t>(rate * static_cast<double>(1ULL << rateBits));
      if (passed >= 1e9) baseAt(ticks, nanos);
    }
    if (rate_ != 0) span_ = std::min((std::uint64_t{50'000} << rateBits) / rate_, longestSpan);
  }

  /// Not so after the machine was suspended, or on a counter that is none to go by.
  bool agrees(std::uint64_t ticks, std::int64_t nanos) const {
    double const expected = static_cast<double>(ticks - ticks_) * static_cast<double>(rate_) /
                            static_cast<double>(1ULL << rateBits);
    double const passed = static_cast<double>(nanos - nanos_);
    return std::abs(passed - expected) < 2e3 + passed * 1e-3;
  }

  void baseAt(std::uint64_t ticks, std::int64_t nanos) {
    baseTicks_ = ticks;
    baseNanos_ = nanos;
  }

  std::uint64_t ticks_ = 0;  // at the latest reading
  std::int64_t nanos_ = 0;
  std::uint64_t span_ = 0;  // so many ticks from then on it knows the time
  std::uint64_t rate_ = 0;
  std::int64_t latest_ = 0;
  std::uint64_t baseTicks_ = 0;  // at the reading from which the rate is measured, or 0
  std::int64_t baseNanos_ = 0;
};

}  // namespace Brelo::Impl
