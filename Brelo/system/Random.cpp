#include "Brelo/Random.h"

#include <fmt/format.h>
#include <time.h>

#include <cstdlib>
#include <iostream>

namespace Brelo {

std::uint32_t Random::seed_ = 0;
bool Random::firstSetSeedFlag = true;
std::mt19937_64 Random::twister_;

void Random::setSeed() {
  char const* const wanted = ::secure_getenv("ZKTEST_RANDSEED");
  if (firstSetSeedFlag) {
    firstSetSeedFlag = false;
    if (wanted != nullptr) {
      seed_ = static_cast<std::uint32_t>(std::strtoul(wanted, nullptr, 10));
    } else {
      timespec now;
      ::clock_gettime(CLOCK_MONOTONIC, &now);
      seed_ = static_cast<std::uint32_t>(now.tv_nsec);
    }
  }
  std::cerr << fmt::format("Brelo::Random::setSeed(), setting seed to {}\n", seed_);
  std::srand(seed_);
  twister_.seed(seed_);
}

std::string Random::randomString(unsigned int length) {
  // The zero at its end is one of the 63 characters to choose from.
  static constexpr char table[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  static_assert(sizeof table == 63);
  std::string text(length, '\0');
  for (char& c : text)
    c = table[static_cast<unsigned>(std::rand()) % sizeof table];
  return text;
}

}  // namespace Brelo
