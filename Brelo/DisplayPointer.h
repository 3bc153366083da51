#pragma once

#include <ostream>
#include <string>

#include "Brelo/Export.h"
#include "Brelo/Formatter.h"

namespace Brelo {

/// A pointer value to be printed, in the same width everywhere, so that addresses in trace
/// lines and reports line up: "NULL", or "0x" and sixteen lower-case hexadecimal digits.
///
/// It holds the address only; what stands there is never read.
class BRELO_EXPORT DisplayPointer {
 public:
  /// Null is allowed.
  explicit DisplayPointer(void const* pointer) : pointer_(pointer) {}

  void const* pointer() const { return pointer_; }  ///< the value
  std::string toString() const;                     ///< as told above

 private:
  void const* pointer_;
};

/// The stream's format flags and fill are left as they were.
BRELO_EXPORT std::ostream& operator<<(std::ostream& stream, DisplayPointer const& pointer);

/// The fmt form: `toString()`.
BRELO_EXPORT fmt::format_context::iterator formatValue(DisplayPointer const& pointer,
                                                       fmt::format_context& context);

}  // namespace Brelo

namespace fmt {

/// What `formatValue` writes.
template <>
struct formatter<Brelo::DisplayPointer> : Brelo::Impl::Formatter<Brelo::DisplayPointer> {};

}  // namespace fmt
