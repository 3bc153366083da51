#pragma once

#include <fmt/core.h>

namespace Brelo::Impl {

/// The fmt form of the library's types, for `fmt::formatter` to inherit: prints what the
/// `formatValue` of the type's own namespace writes, a function that gets the value and the context
/// and returns where the text ends.
template <class Value>
struct Formatter {
  /// Takes no format specifier.
  constexpr auto parse(fmt::format_parse_context& context) { return context.begin(); }
  /// Returns where the text ends.
  auto format(Value const& value, fmt::format_context& context) const {
    return formatValue(value, context);
  }
};

}  // namespace Brelo::Impl
