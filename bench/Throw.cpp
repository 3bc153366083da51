// An exception thrown and caught 30 frames deep, beside the standard one.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <stdexcept>
#include <string>

#include "Brelo/Exception.h"
#include "Catalogue.h"
#include "Run.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr std::uint64_t throws = 20'000;
constexpr int depth = 30;

[[noreturn]] void throwStandard(std::string const& message) {
  throw std::runtime_error(message);
}

using Thrower = void (*)(std::string const&);

[[gnu::noinline]] void descend(int frames, Thrower thrower, std::string const& message) {
  if (frames == 0) return thrower(message);
  descend(frames - 1, thrower, message);
  __asm__ volatile("");  // keeps the call from becoming a jump
}

double throwAndCatch(Thrower thrower, std::uint64_t count) {
  std::string const message = "something failed that seldom does";
  Run run(count);
  do {
    try {
      descend(depth, thrower, message);
    } catch (std::exception const& e) {
      benchmark::DoNotOptimize(&e);
    }
  } while (!run.finished());
  return run.seconds();
}

}  // namespace

void addThrow(Catalogue& catalogue) {
  catalogue.measure("throw", "30 frames deep", "brelo", throws, [](std::uint64_t count) {
    return throwAndCatch(Brelo::RuntimeException::throwException, count);
  });
  catalogue.measure("throw", "30 frames deep", "std-runtime-error", throws,
                    [](std::uint64_t count) { return throwAndCatch(throwStandard, count); });
  catalogue.aim({"throw", "30 frames deep", "brelo", 1.5, "std-runtime-error"});
}

}  // namespace Bench
