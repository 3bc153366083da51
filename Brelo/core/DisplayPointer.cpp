#include "Brelo/DisplayPointer.h"

#include <fmt/compile.h>

#include <cstdint>
#include <string_view>

namespace Brelo {

std::string DisplayPointer::toString() const {
  return fmt::format("{}", *this);
}

std::ostream& operator<<(std::ostream& stream, DisplayPointer const& pointer) {
  if (pointer.pointer() == nullptr) return stream << "NULL";
  fmt::memory_buffer text;
  fmt::format_to(fmt::appender(text), FMT_COMPILE("{}"), pointer);
  stream.width(0);
  return stream << std::string_view(text.data(), text.size());
}

fmt::format_context::iterator formatValue(DisplayPointer const& pointer,
                                          fmt::format_context& context) {
  if (pointer.pointer() == nullptr) return fmt::format_to(context.out(), "NULL");
  // "0x" and two digits for each byte of an address.
  static_assert(2 + 2 * sizeof(void*) == 18);
  return fmt::format_to(context.out(), FMT_COMPILE("{:#018x}"),
                        reinterpret_cast<std::uintptr_t>(pointer.pointer()));
}

}  // namespace Brelo
