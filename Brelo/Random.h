#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "Brelo/Export.h"

namespace Brelo {

/// Two pseudo-random sequences under one seed, for tests and for spreading load: nothing here is
/// a secret.
///
/// The numbers come from a 64-bit Mersenne Twister, the strings from the C library's `rand()`,
/// which others may draw from too. One state for the process, without a lock: its callers are one
/// thread or exclude each other.
class BRELO_EXPORT Random {
 public:
  /// Restarts both sequences and writes the seed to standard error. The first call chooses the
  /// seed, the environment's ZKTEST_RANDSEED (decimal, modulo 2^32) or else one from the clock;
  /// later calls keep it. Without any call both run from their defaults.
  static void setSeed();
  /// 0 before the first `setSeed()`.
  static std::uint32_t getSeed() { return seed_; }

  /// The next number, of all 64 bits.
  static std::uint64_t rand64() { return twister_(); }
  /// `length` characters: digits, letters, and about one zero character in 63.
  static std::string randomString(unsigned int length);

 private:
  static std::uint32_t seed_;
  static bool firstSetSeedFlag;
  static std::mt19937_64 twister_;
};

}  // namespace Brelo
