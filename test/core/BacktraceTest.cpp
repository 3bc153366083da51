#include "Brelo/Backtrace.h"

#include <execinfo.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

using namespace Brelo;

namespace {

/// The frames from this function's caller on, by the compiler's own unwinder, beside the record's.
/// Counted from the outermost frame, since a sanitizer adds one at the other end.
[[gnu::noinline]] void expectSameFrames() {
  void* expected[128];
  int const found = backtrace(expected, 128);
  Backtrace record(false);
  record.unwind();
  int const recorded = static_cast<int>(record.count());
  ASSERT_GE(recorded, 3);
  ASSERT_LE(std::abs(found - recorded), 1);
  for (int i = 1; i < recorded; ++i) {
    EXPECT_EQ(record.frames()[recorded - i], expected[found - i]) << i;
  }
}

[[gnu::noinline]] unsigned deepCount(int depth) {
  unsigned const count = depth == 0 ? Backtrace(true).count() : deepCount(depth - 1);
  __asm__ volatile("");  // keeps the call from becoming a jump
  return count;
}

TEST(Backtrace, RecordsTheFramesOfTheCaller) {
  expectSameFrames();
  std::thread(expectSameFrames).join();
  EXPECT_EQ(deepCount(200), 100U);
}

TEST(Backtrace, VerbosityIsZeroForExactlyZero) {
  unsetenv("BRELO_BACKTRACE_VERBOSITY");
  EXPECT_EQ(Backtrace::verbosity(), 1);
  setenv("BRELO_BACKTRACE_VERBOSITY", "00", 1);
  EXPECT_EQ(Backtrace::verbosity(), 1);
  setenv("BRELO_BACKTRACE_VERBOSITY", "0", 1);
  EXPECT_EQ(Backtrace::verbosity(), 0);
}

}  // namespace
