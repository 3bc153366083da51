#include "Brelo/UtilText.h"

#include <fmt/format.h>

#include <string_view>

#include "Brelo/HashMix.h"

namespace Brelo {

std::string dumpHex(void const* data, int length) {
  static constexpr char digits[] = "0123456789abcdef";
  auto const* const bytes = static_cast<unsigned char const*>(data);
  std::string text;
  for (int i = 0; i < length; ++i) {
    if (i > 0 && i % 4 == 0) text += ' ';
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

namespace Util {

namespace {

using Hash32 = Impl::HashMix<unsigned int>;
using Hash64 = Impl::HashMix<unsigned long>;

}  // namespace

unsigned int hash(std::string const& text) {
  return Hash32(Hash32::start).mix(text).hash_;
}

unsigned int hash(void const* data, unsigned int length) {
  return Hash32(Hash32::start).mix(data, length).hash_;
}

unsigned long hash64(std::string const& text) {
  return Hash64(Hash64::start).mix(text).hash_;
}

unsigned long hash64(void const* data, unsigned int length) {
  return Hash64(Hash64::start).mix(data, length).hash_;
}

std::string base64Encode(unsigned int value) {
  static constexpr char table[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=";
  std::string text(6, '\0');
  for (char& c : text) {
    c = table[value & 63];
    value >>= 6;
  }
  return text;
}

std::string traceHandleName(std::string path, std::string const& prefix, bool temp) noexcept {
  path.resize(path.find_last_not_of('/') + 1);
  std::string_view const last = std::string_view(path).substr(path.rfind('/') + 1);
  return fmt::format("{}{}{}-{}", prefix, temp ? "Temp-" : "-", base64Encode(hash(path)), last);
}

}  // namespace Util

}  // namespace Brelo
