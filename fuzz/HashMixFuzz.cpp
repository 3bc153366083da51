#include "Brelo/HashMix.h"

#include <algorithm>
#include <memory>

#include "Check.h"

namespace {

using Brelo::Impl::HashMix;
using BreloFuzz::check;

/// Words of bytes put together one by one, an incomplete last one from its high end.
template <class T>
T expected(T hash, std::uint8_t const* data, std::size_t size) {
  for (std::size_t i = 0; i < size; i += sizeof(T)) {
    std::size_t const length = std::min(sizeof(T), size - i);
    T word = 0;
    for (std::size_t byte = 0; byte < length; ++byte)
      word |= T{data[i + byte]} << 8 * (sizeof(T) - length + byte);
    hash = (hash ^ word) * HashMix<T>::prime;
  }
  return hash;
}

template <class T>
void checkHash(T seed, std::uint8_t const* data, std::size_t size, std::size_t words) {
  T const hash = expected(seed, data, size);
  check(HashMix<T>(seed).mix(data, size).hash_ == hash);
  std::size_t const first = std::min(words, size / sizeof(T)) * sizeof(T);
  check(HashMix<T>(seed).mix(data, first).mixInline(data + first, size - first).hash_ == hash);
  if (size >= 8) {
    check(HashMix<T>(seed).template mixFixedLen<8>(data).hash_ == expected(seed, data, 8));
    check(HashMix<T>(seed).template mixFixedLen<2>(data + 6).hash_ == expected(seed, data + 6, 2));
  }
}

}  // namespace

/// The number of words in the first of two parts, a seed's lowest byte, and the bytes to hash,
/// which get a block of their own so that a read beyond them is seen.
int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size < 2) return 0;
  auto const bytes = std::make_unique<std::uint8_t[]>(size - 2);
  std::copy(data + 2, data + size, bytes.get());
  checkHash<unsigned int>(HashMix<unsigned int>::start ^ data[1], bytes.get(), size - 2, data[0]);
  checkHash<unsigned long>(HashMix<unsigned long>::start ^ data[1], bytes.get(), size - 2, data[0]);
  return 0;
}
