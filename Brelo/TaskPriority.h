#pragma once

#include <ostream>
#include <string>

#include "Brelo/Export.h"
#include "Brelo/Formatter.h"

namespace Brelo {

/// A task's priority: one of five levels, lower numbers first. `absolute` is always taken before
/// anything else; `high` and `normal` are passed over now and then for the levels below; `low`
/// is never passed over; `scavenge` runs when nothing above it is in turn.
class BRELO_EXPORT TaskPriority {
 public:
  static TaskPriority const absolute;       ///< 0
  static TaskPriority const high;           ///< 1
  static TaskPriority const normal;         ///< 2
  static TaskPriority const low;            ///< 3
  static TaskPriority const scavenge;       ///< 4
  static TaskPriority const oneBeyondLast;  ///< the number of levels; no task may have it

  static constexpr unsigned char levels = 5;  ///< `absolute` to `scavenge`

  /// Any number; tasks take only levels.
  constexpr explicit TaskPriority(unsigned char value) : value_(value) {}

  constexpr unsigned char value() const { return value_; }  ///< as given
  /// One of the five levels.
  constexpr bool isLevel() const { return value_ < levels; }

  /// The name. A value above `oneBeyondLast` is an assertion.
  char const* toStrep() const;
  /// A letter of "AHNLS-". A value above `oneBeyondLast` is an assertion.
  char oneChar() const;
  /// The same as a string.
  std::string oneCharString() const { return std::string(1, oneChar()); }

  /// Compare the numbers: the smaller one is the higher priority.
  /// @{
  friend constexpr bool operator==(TaskPriority a, TaskPriority b) { return a.value_ == b.value_; }
  friend constexpr bool operator!=(TaskPriority a, TaskPriority b) { return a.value_ != b.value_; }
  friend constexpr bool operator<(TaskPriority a, TaskPriority b) { return a.value_ < b.value_; }
  /// @}

 private:
  unsigned char value_;
};

inline constexpr TaskPriority TaskPriority::absolute{0};
inline constexpr TaskPriority TaskPriority::high{1};
inline constexpr TaskPriority TaskPriority::normal{2};
inline constexpr TaskPriority TaskPriority::low{3};
inline constexpr TaskPriority TaskPriority::scavenge{4};
inline constexpr TaskPriority TaskPriority::oneBeyondLast{levels};

/// The name of a level, or "invalidPriority=" and the number; the fmt form likewise.
BRELO_EXPORT std::ostream& operator<<(std::ostream& stream, TaskPriority priority);

/// The fmt form: the name of a level, or "invalidPriority=" and the number.
BRELO_EXPORT fmt::format_context::iterator formatValue(TaskPriority priority,
                                                       fmt::format_context& context);

}  // namespace Brelo

namespace fmt {

/// What `formatValue` writes.
template <>
struct formatter<Brelo::TaskPriority> : Brelo::Impl::Formatter<Brelo::TaskPriority> {};

}  // namespace fmt
