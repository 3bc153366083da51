// What the guide shows to print at a crash names the function that crashed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

#include "Crashes.h"

// Exported, so that they have names.
namespace crashTest {

[[gnu::noinline]] void touchesNothing(int volatile* nothing) {
  *nothing = 1;
}

[[gnu::noinline]] void freesTwice(void* volatile block) {
  std::free(block);
  std::free(block);
}

[[gnu::noinline]] int recurses(int depth) {
  char volatile room[1000] = {};
  return depth < 0 ? 0 : recurses(depth + 1) + room[depth % 1000];
}

[[gnu::noinline]] void throws() {
  throw std::runtime_error("thrown and not caught");
}

[[gnu::noinline]] void mayNotThrow() noexcept {
  throws();
}

}  // namespace crashTest

namespace {

template <class Body>
void expectCrash(Body body, int signal, std::string const& says, std::string const& in) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT((tellOfCrashes(), body()), testing::KilledBySignal(signal), says + "(.|\n)*" + in);
}

#ifdef __SANITIZE_ADDRESS__
constexpr bool sanitizerTells = true;  // and ends the process in ways of its own
#elif defined(__SANITIZE_THREAD__)
constexpr bool sanitizerTells = true;
#else
constexpr bool sanitizerTells = false;
#endif

TEST(Crash, PrintsItsStackAndEndsAsItWouldHave) {
  if (sanitizerTells) GTEST_SKIP() << "the sanitizer tells of crashes";
  expectCrash([] { crashTest::touchesNothing(nullptr); }, SIGSEGV, "crash: Segmentation fault",
              "crashTest14touchesNothing");
  expectCrash([] { crashTest::freesTwice(std::malloc(1)); }, SIGABRT, "crash: Aborted",
              "crashTest10freesTwice");
  expectCrash([] { crashTest::recurses(1); }, SIGSEGV, "crash: Segmentation fault",
              "crashTest8recurses");
  expectCrash([] { crashTest::mayNotThrow(); }, SIGABRT,
              "crash: an exception .* thrown and not caught",
              "crashTest6throws(.|\n)*crashTest11mayNotThrow");
  expectCrash(
      [] {
        std::thread([] {
          tellOfCrashes();
          crashTest::touchesNothing(nullptr);
        }).join();
      },
      SIGSEGV, "crash: Segmentation fault", "crashTest14touchesNothing");
}

}  // namespace
