// The 64-bit hash beside the byte-wise FNV-1a.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "Brelo/UtilText.h"
#include "Catalogue.h"
#include "Run.h"
#include "Units.h"

namespace Bench {

namespace {

std::uint64_t fnv1a(std::string const& text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (char const c : text)
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return hash;
}

/// Each hash goes into the next text, so that no two of them overlap.
template <class Hash>
Body hashing(std::size_t size, Hash hash) {
  return [size, hash](std::uint64_t count) {
    std::string text(size, 'x');
    Run run(count);
    do {
      text[0] = static_cast<char>(hash(text));
    } while (!run.finished());
    benchmark::DoNotOptimize(text);
    return run.seconds();
  };
}

}  // namespace

void addHash(Catalogue& catalogue) {
  for (std::size_t const size : {64, 1024}) {
    std::string const form = std::to_string(size) + " bytes";
    std::uint64_t const count = 64'000'000 / size;
    catalogue.measure("hash64", form, "brelo", count, hashing(size, [](std::string const& text) {
                        return Brelo::Util::hash64(text);
                      }));
    catalogue.measure("hash64", form, "fnv-1a", count, hashing(size, fnv1a));
    catalogue.aim({"hash64", form, "brelo", 0.2, "fnv-1a"});
  }
}

}  // namespace Bench
