#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "Brelo/Export.h"

namespace Brelo::Impl {

/// The library's one general hash function, as a running value: FNV-1a taken a word at a time.
///
/// Results differ from byte-wise FNV-1a, and between the two widths. The length is not mixed in:
/// an incomplete last word counts as one with zero bytes in front. Results are the same in every
/// process on little-endian machines, and no defence against chosen inputs. A plain value; T is
/// `unsigned int` or `unsigned long`.
template <class T>
class BRELO_EXPORT HashMix {
 public:
  /// What each step multiplies by.
  static constexpr T prime = static_cast<T>(sizeof(T) == 4 ? 0x01000193 : 0x100000001b3);
  /// The customary seed.
  static constexpr T start = static_cast<T>(sizeof(T) == 4 ? 0x811c9dc5 : 0xcbf29ce484222325);

  /// Any value: `start`, or the result of an earlier run to go on from.
  explicit HashMix(T seed) : hash_(seed) {}

  /// Mixes `length` bytes of any alignment; none leave the value as it is. Bytes may be mixed in
  /// several calls with the result of one if each but the last takes whole words.
  HashMix& mix(void const* data, unsigned long length);
  /// Mixes the characters, zero ones included.
  HashMix& mix(std::string const& text) { return mix(text.data(), text.size()); }
  /// The same as `mix`, in the caller's code.
  HashMix& mixInline(void const* data, unsigned long length);

  /// The result of `mix` on a value of N bytes: 1, 2, 4 or 8.
  template <unsigned N>
  HashMix& mixFixedLen(void const* data) {
    static_assert(N == 1 || N == 2 || N == 4 || N == 8);
    if constexpr (N > sizeof(T)) {
      step(load<T>(data));
      step(load<T>(static_cast<unsigned char const*>(data) + sizeof(T)));
    } else if constexpr (N == 8) {
      step(load<std::uint64_t>(data));
    } else if constexpr (N == 4) {
      step(T{load<std::uint32_t>(data)} << 8 * (sizeof(T) - N));
    } else if constexpr (N == 2) {
      step(T{load<std::uint16_t>(data)} << 8 * (sizeof(T) - N));
    } else {
      step(T{load<std::uint8_t>(data)} << 8 * (sizeof(T) - N));
    }
    return *this;
  }

  T hash_;  ///< the value so far

 private:
  void step(T word) { hash_ = (hash_ ^ word) * prime; }

  template <class Word>
  static Word load(void const* data) {
    Word word;
    std::memcpy(&word, data, sizeof word);
    return word;
  }
};

template <class T>
inline HashMix<T>& HashMix<T>::mixInline(void const* data, unsigned long length) {
  auto const* bytes = static_cast<unsigned char const*>(data);
  auto const* const lastWord = bytes + length / sizeof(T) * sizeof(T);
  for (; bytes != lastWord; bytes += sizeof(T))
    step(load<T>(bytes));
  unsigned long const rest = length % sizeof(T);
  if (rest == 0) return *this;
  if (length > sizeof(T)) {
    // Reads the tail with bytes in front of it, which costs less than to assemble it in memory.
    unsigned long const shift = 8 * (sizeof(T) - rest);
    step(load<T>(bytes + rest - sizeof(T)) >> shift << shift);
  } else {
    unsigned char tail[sizeof(T)] = {};
    std::memcpy(tail + sizeof(T) - rest, bytes, rest);
    step(load<T>(tail));
  }
  return *this;
}

extern template class HashMix<unsigned int>;
extern template class HashMix<unsigned long>;

}  // namespace Brelo::Impl
