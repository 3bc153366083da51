#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <type_traits>

#include "Brelo/Export.h"
#include "Brelo/Formatter.h"

namespace Brelo {

/// Points in time of the scheduler: the steady clock, in nanoseconds.
using TaskTimePoint = std::chrono::steady_clock::time_point;

/// A span of time as a signed 64-bit count of nanoseconds.
///
/// Made from a plain number explicitly and from std::chrono spans as they are; those of floating
/// point are truncated, beyond the range they are the nearest value, and not-a-number is an
/// assertion. `max()` stands for never.
class BRELO_EXPORT TaskTimeDuration {
 public:
  /// Zero unless given, and in nanoseconds if a plain number.
  /// @{
  constexpr TaskTimeDuration() = default;
  constexpr explicit TaskTimeDuration(std::int64_t nanoseconds) : count_(nanoseconds) {}
  template <class Rep, class Period,
            class = std::enable_if_t<std::is_convertible_v<std::chrono::duration<Rep, Period>,
                                                           std::chrono::nanoseconds>>>
  constexpr TaskTimeDuration(std::chrono::duration<Rep, Period> span)
      : count_(std::chrono::nanoseconds(span).count()) {}
  template <class Rep, class Period, std::enable_if_t<std::is_floating_point_v<Rep>, int> = 0>
  TaskTimeDuration(std::chrono::duration<Rep, Period> span)
      : count_(nearest(std::chrono::duration<double, std::nano>(span).count())) {}
  /// @}

  /// Never.
  static constexpr TaskTimeDuration max() {
    return TaskTimeDuration(std::numeric_limits<std::int64_t>::max());
  }

  constexpr std::int64_t count() const { return count_; }  ///< nanoseconds

  /// Sums and differences; beyond the range they wrap.
  /// @{
  constexpr TaskTimeDuration& operator+=(TaskTimeDuration other) {
    count_ = wrapped(unsignedCount() + other.unsignedCount());
    return *this;
  }
  constexpr TaskTimeDuration& operator-=(TaskTimeDuration other) {
    count_ = wrapped(unsignedCount() - other.unsignedCount());
    return *this;
  }
  friend constexpr TaskTimeDuration operator+(TaskTimeDuration a, TaskTimeDuration b) {
    return a += b;
  }
  friend constexpr TaskTimeDuration operator-(TaskTimeDuration a, TaskTimeDuration b) {
    return a -= b;
  }
  /// @}
  /// Compare the counts.
  /// @{
  friend constexpr bool operator==(TaskTimeDuration a, TaskTimeDuration b) {
    return a.count_ == b.count_;
  }
  friend constexpr bool operator!=(TaskTimeDuration a, TaskTimeDuration b) { return !(a == b); }
  friend constexpr bool operator<(TaskTimeDuration a, TaskTimeDuration b) {
    return a.count_ < b.count_;
  }
  friend constexpr bool operator>(TaskTimeDuration a, TaskTimeDuration b) { return b < a; }
  friend constexpr bool operator<=(TaskTimeDuration a, TaskTimeDuration b) { return !(b < a); }
  friend constexpr bool operator>=(TaskTimeDuration a, TaskTimeDuration b) { return !(a < b); }
  /// @}

 private:
  static std::int64_t nearest(double nanoseconds);
  constexpr std::uint64_t unsignedCount() const { return static_cast<std::uint64_t>(count_); }
  static constexpr std::int64_t wrapped(std::uint64_t value) {
    return static_cast<std::int64_t>(value);
  }

  std::int64_t count_ = 0;
};

/// Seconds to nanoseconds, truncated. A negative or non-finite argument is an assertion; one
/// beyond the range is the largest duration.
BRELO_EXPORT TaskTimeDuration time2Duration(double seconds);

/// A form for people: a whole number of "ns", "µs", "ms", "s" or "min", cut off, not rounded.
BRELO_EXPORT std::string durationToString(TaskTimeDuration duration);

/// Writes `durationToString`, as does the fmt form.
BRELO_EXPORT std::ostream& operator<<(std::ostream& stream, TaskTimeDuration const& duration);

/// The fmt form: `durationToString`.
BRELO_EXPORT fmt::format_context::iterator formatValue(TaskTimeDuration const& duration,
                                                       fmt::format_context& context);

}  // namespace Brelo

namespace fmt {

/// What `formatValue` writes.
template <>
struct formatter<Brelo::TaskTimeDuration> : Brelo::Impl::Formatter<Brelo::TaskTimeDuration> {};

}  // namespace fmt
