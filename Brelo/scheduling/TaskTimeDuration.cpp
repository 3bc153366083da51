#include "Brelo/TaskTimeDuration.h"

#include <cmath>

#include "Brelo/Assert.h"

namespace Brelo {

std::int64_t TaskTimeDuration::nearest(double nanoseconds) {
  using Limits = std::numeric_limits<std::int64_t>;
  if (std::isnan(nanoseconds)) BRELO_FAIL("TaskTimeDuration", "a duration is not a number");
  // The largest count is no double: what reaches the next one above is cut.
  if (nanoseconds >= static_cast<double>(Limits::max())) return Limits::max();
  if (nanoseconds <= static_cast<double>(Limits::min())) return Limits::min();
  return static_cast<std::int64_t>(nanoseconds);
}

TaskTimeDuration time2Duration(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) {
    BRELO_FAIL("Brelo", "no duration in seconds:{}", seconds);
  }
  double const nanoseconds = seconds * 1e9;
  if (nanoseconds >= static_cast<double>(TaskTimeDuration::max().count())) {
    return TaskTimeDuration::max();
  }
  return TaskTimeDuration(static_cast<std::int64_t>(nanoseconds));
}

std::string durationToString(TaskTimeDuration duration) {
  constexpr std::int64_t usec = 1000;
  constexpr std::int64_t msec = 1000 * usec;
  constexpr std::int64_t sec = 1000 * msec;
  constexpr std::int64_t minute = 60 * sec;
  std::int64_t const v = duration.count();
  if (v >= 60 * minute) return fmt::format("{}min", v / minute);
  if (v >= minute) return fmt::format("{}s", v / sec);
  if (v >= msec) return fmt::format("{}ms", v / msec);
  if (v < usec) return fmt::format("{}ns", v);
  return fmt::format("{}µs", v / usec);
}

std::ostream& operator<<(std::ostream& stream, TaskTimeDuration const& duration) {
  return stream << durationToString(duration);
}

fmt::format_context::iterator formatValue(TaskTimeDuration const& duration,
                                          fmt::format_context& context) {
  return fmt::format_to(context.out(), "{}", durationToString(duration));
}

}  // namespace Brelo
