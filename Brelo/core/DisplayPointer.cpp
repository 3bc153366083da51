#include "Brelo/DisplayPointer.h"

#include <fmt/compile.h>

#include <cstdint>
#include <iomanip>

namespace Brelo {

namespace {

// "0x" and two digits for each byte of an address.
constexpr int width = 2 + 2 * sizeof(void*);

}  // namespace

std::string DisplayPointer::toString() const {
  return fmt::format("{}", *this);
}

std::ostream& operator<<(std::ostream& stream, DisplayPointer const& pointer) {
  if (pointer.pointer() == nullptr) return stream << "NULL";
  auto const flags = stream.flags();
  auto const fill = stream.fill('0');
  stream.setf(std::ios::hex, std::ios::basefield);
  stream.setf(std::ios::internal, std::ios::adjustfield);
  stream.setf(std::ios::showbase);
  stream.unsetf(std::ios::uppercase);
  stream << std::setw(width) << reinterpret_cast<std::uintptr_t>(pointer.pointer());
  stream.fill(fill);
  stream.flags(flags);
  return stream;
}

fmt::format_context::iterator formatValue(DisplayPointer const& pointer,
                                          fmt::format_context& context) {
  if (pointer.pointer() == nullptr) return fmt::format_to(context.out(), "NULL");
  static_assert(width == 18);
  return fmt::format_to(context.out(), FMT_COMPILE("{:#018x}"),
                        reinterpret_cast<std::uintptr_t>(pointer.pointer()));
}

}  // namespace Brelo
