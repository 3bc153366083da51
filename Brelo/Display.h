#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "Brelo/Export.h"

/// What makes diagnostics readable: parts of buffers, names of types, values by their type.

namespace Brelo {

namespace Impl {

/// Prints the characters of `text` from `start` to before `end`, zero characters included,
/// without a copy of the text. The caller keeps the bounds inside the text and in order.
class BRELO_EXPORT DisplaySubStringBase {
 public:
  /// Unformatted: width and fill have no effect. Returns the stream.
  static std::ostream& addToStream(std::ostream& stream, char const* text, unsigned long start,
                                   unsigned long end);
  /// The same as a string.
  static std::string toString(char const* text, unsigned long start, unsigned long end);
};

}  // namespace Impl

/// The readable form of a type's name as `std::type_info` has it; a text that is no such name
/// comes back unchanged.
BRELO_EXPORT std::string typeName(char const* mangled);

/// The process's printing functions by name. Any thread may use it, under the global lock, which
/// is not held while a function prints. Functions stay until they are replaced.
class BRELO_EXPORT IntrospectionMap {
 public:
  /// Prints the value that it is given the address of.
  using Printer = std::string (*)(void const*);

  /// Takes the place of an earlier function of that name.
  static void insert(std::string const& name, std::string (*printer)(void const*));
  /// Null for a name that nobody has inserted.
  static Printer lookup(std::string const& name);
};

namespace Platform {

/// Prints values of one type: through the function under its name in the IntrospectionMap if
/// that gives any text, and as their bytes in hexadecimal if not.
class BRELO_EXPORT ValuePrinter {
 public:
  /// `size` is that of a value, in bytes.
  ValuePrinter(std::string name, std::uint32_t size);

  /// Empty without a function.
  std::string customToString(void const* value) const;
  /// The text as told above.
  virtual std::string toString(void const* value);
  virtual ~ValuePrinter();

 private:
  std::string name_;
  std::uint32_t size_;
};

}  // namespace Platform

}  // namespace Brelo
