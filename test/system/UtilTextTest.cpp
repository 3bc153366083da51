#include <gtest/gtest.h>

#include <tuple>

#include "Brelo/HashMix.h"
#include "Brelo/Random.h"
#include "Brelo/Util.h"

using namespace Brelo;

namespace {

// The figures come from a script in another language, on integers of any size: words of W bytes by
// int.from_bytes(bytes(W - len(rest)) + rest, "little"), each step (h ^ word) * P % 2 ** (8 * W).
TEST(HashMix, ResultsAreTheKnownOnes) {
  std::tuple<std::string, unsigned, unsigned long> const cases[] = {
      {"", 0x811c9dc5, 0xcbf29ce484222325},
      {"a", 0x920c5d1f, 0x9c63bd4c8601b7df},
      {"\1\2\3\4\5", 0x4aa3ef64, 0xcf34d9b43901b7df},
      {"abcdefg", 0x246b0344, 0x81661b08f23064df},
      {"abcdefgh", 0x3ad69deb, 0x3919eeb00ee1e68c},
      {"abcdefghijkl\xff", 0x89e27852, 0x1b98fe1e84dabfe4},
  };
  for (auto const& [bytes, hash, hash64] : cases) {
    std::string const moved = "x" + bytes;  // not aligned
    auto const size = static_cast<unsigned>(bytes.size());
    EXPECT_TRUE(Util::hash(bytes) == hash && Util::hash(moved.data() + 1, size) == hash) << bytes;
    EXPECT_TRUE(Util::hash64(bytes) == hash64 && Util::hash64(moved.data() + 1, size) == hash64)
        << bytes;
  }
}

template <class T, unsigned... N>
bool fixedHashesLikeBytes(char const* b) {
  return (... && (Impl::HashMix<T>(7).template mixFixedLen<N>(b).hash_ ==
                  Impl::HashMix<T>(7).mix(b, N).hash_));
}

TEST(HashMix, FixedLengthsHashLikeBytes) {
  EXPECT_TRUE((fixedHashesLikeBytes<unsigned, 1, 2, 4, 8>("\xfe\x81\x7f\x03\xc4\x05\x96\x87")));
  EXPECT_TRUE(
      (fixedHashesLikeBytes<unsigned long, 1, 2, 4, 8>("\xfe\x81\x7f\x03\xc4\x05\x96\x87")));
}

TEST(UtilText, EncodersAndHandleNames) {
  EXPECT_EQ(dumpHex("\x00\x01\x0f\xf0\xab\xcd\xef\x12", 8), "00010ff0 abcdef12");
  EXPECT_EQ(dumpHex("a", 1) + dumpHex("a", 0) + dumpHex("a", -4), "61");
  EXPECT_EQ(Util::base64Encode(0xdeadbeef), "v7breD");
  EXPECT_EQ(Util::traceHandleName("/var/run/x", "Lock", false), "Lock-ZN9LWD-x");
  EXPECT_EQ(Util::traceHandleName("/a/b//", "Lock", true), "LockTemp-eRy1UC-b");
  EXPECT_EQ(Util::traceHandleName("x", "", false), "-f0FDtD-x");
}

TEST(Random, SeedOfTheEnvironmentRestartsBothSequences) {
  if (Random::getSeed() != 0) GTEST_SKIP() << "only the first run in a process chooses the seed";
  for (char const* variable : {"4294967301", "6"}) {  // 2^32 + 5; the second comes too late
    setenv("ZKTEST_RANDSEED", variable, 1);
    testing::internal::CaptureStderr();
    Random::setSeed();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Brelo::Random::setSeed(), setting seed to 5\n");
    EXPECT_EQ(Random::rand64(), std::mt19937_64(5)());
    std::string const text = Random::randomString(2000);
    std::srand(5);
    for (char c : text)
      ASSERT_EQ(c, "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"[rand() % 63]);
  }
}

}  // namespace
