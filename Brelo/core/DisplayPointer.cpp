#include "Brelo/DisplayPointer.h"

#include <fmt/core.h>

#include <cstddef>
#include <cstdint>

namespace Brelo {

std::string DisplayPointer::toString() const {
  return fmt::format("{}", *this);
}

namespace {

constexpr std::size_t length = 2 + 2 * sizeof(void*);  // "0x" and two digits for each byte
static_assert(length == 18);

}  // namespace

std::ostream& operator<<(std::ostream& stream, DisplayPointer const& pointer) {
  if (pointer.pointer() == nullptr) return stream << "NULL";
  char text[length];
  fmt::format_to_n(text, length, "{}", pointer);
  stream.width(0);
  return stream.write(text, length);
}

fmt::format_context::iterator formatValue(DisplayPointer const& pointer,
                                          fmt::format_context& context) {
  if (pointer.pointer() == nullptr) return fmt::format_to(context.out(), "NULL");
  return fmt::format_to(context.out(), "{:#018x}",
                        reinterpret_cast<std::uintptr_t>(pointer.pointer()));
}

}  // namespace Brelo
