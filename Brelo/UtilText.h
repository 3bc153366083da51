#pragma once

#include <string>

#include "Brelo/Export.h"

/// Small texts and hashes of values. Functions of their arguments alone; any thread.

namespace Brelo {

/// Lower-case hexadecimal digits of the bytes in their order, with a blank between each four
/// bytes; empty if `length` is 0 or negative.
BRELO_EXPORT std::string dumpHex(void const* data, int length);

namespace Util {

/// The hash of the bytes (Brelo/HashMix.h) from the customary seed; the seed itself for no bytes.
BRELO_EXPORT unsigned int hash(std::string const& text);
/// The same of `length` bytes of any alignment.
BRELO_EXPORT unsigned int hash(void const* data, unsigned int length);
/// The same in 64 bits, which are no continuation of the 32.
BRELO_EXPORT unsigned long hash64(std::string const& text);
/// The same of `length` bytes of any alignment.
BRELO_EXPORT unsigned long hash64(void const* data, unsigned int length);

/// Six characters, the six lowest bits first, of letters, digits, '_' and '='. Not the base64 of
/// the mail standard.
BRELO_EXPORT std::string base64Encode(unsigned int value);

/// A trace handler's name for a path, readable and different for different paths but for a hash
/// collision: "PREFIX-HASH-LAST", or "PREFIXTemp-HASH-LAST" for a temporary one, where LAST is
/// the last component. Slashes at the end do not count. A failure ends the process.
BRELO_EXPORT std::string traceHandleName(std::string path, std::string const& prefix,
                                         bool temp) noexcept;

}  // namespace Util

}  // namespace Brelo
