#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace BreloFuzz {

/// What has to hold for any input.
inline void check(bool holds) {
  if (!holds) std::abort();
}

inline std::string toText(std::uint8_t const* data, std::size_t size) {
  return std::string(data, data + size);
}

}  // namespace BreloFuzz

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);
