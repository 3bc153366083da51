#pragma once

#include <fmt/format.h>

#include <ostream>
#include <string>

namespace Brelo {

/// A pointer value to be printed, in the same width everywhere, so that addresses in trace
/// lines and reports line up: "NULL", or "0x" and sixteen lower-case hexadecimal digits.
///
/// It holds the address only; what stands there is never read.
class DisplayPointer {
 public:
  explicit DisplayPointer(void const* pointer) : pointer_(pointer) {}

  void const* pointer() const { return pointer_; }
  std::string toString() const;

 private:
  void const* pointer_;
};

/// The stream's format flags and fill are left as they were.
std::ostream& operator<<(std::ostream& stream, DisplayPointer const& pointer);

}  // namespace Brelo

template <>
struct fmt::formatter<Brelo::DisplayPointer> {
  constexpr auto parse(format_parse_context& context) { return context.begin(); }
  auto format(Brelo::DisplayPointer const& pointer, format_context& context) const
      -> format_context::iterator;
};
