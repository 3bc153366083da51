#include "Brelo/UtilSelf.h"

#include <cstdarg>
#include <fstream>

#include "support/ChildProcess.h"
#include "support/HelperTest.h"

using namespace Brelo;
using UtilSelf = BreloTest::HelperTest;

static std::string logged;

/// Take the place of the C library's, of which hardened builds call the second one.
extern "C" void syslog(int priority, char const* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  logged = fmt::format("{} {} {}", priority, format, va_arg(arguments, char const*));
  va_end(arguments);
}
extern "C" void __syslog_chk(int priority, int, char const* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  logged = fmt::format("{} {} {}", priority, format, va_arg(arguments, char const*));
  va_end(arguments);
}

TEST_F(UtilSelf, TakesTheDefaultTimeoutFromTheEnvironmentOnce) {
  double const never = std::stod("inf");
  for (auto const& [value, expected] : {std::pair{"", never}, {" 2.5s", 2.5}, {"1e999", never}}) {
    EXPECT_TRUE(BreloTest::passesInChild([value = value, expected = expected] {
      setenv("WAITFOR_DEFAULT", value, 1);
      EXPECT_EQ(waitForDefaultTimeout(), expected);
      setenv("WAITFOR_DEFAULT", "7", 1);
      EXPECT_EQ(waitForDefaultTimeout(), expected);
    })) << value;
  }
}

TEST_F(UtilSelf, LeavesACanaryInTraceAndSystemLog) {
  auto const line = fmt::format("CANARY: pid:{0} tid:{0} BreloUtil 100%s {{}}", getpid());
  auto const emit = [&] { return Util::emitCanaryLog(*handler, "100%s {}"), "done"; };
  EXPECT_EQ(outcome(emit), "1 " + line + "|done");
  EXPECT_EQ(logged, "175 %s " + line);
}

TEST_F(UtilSelf, ResolvesSymbols) {
  EXPECT_TRUE(Util::resolveSym(*handler, "malloc") != nullptr && !Util::resolveSymError());
  setenv("HEAPCHECK", "", 1);
  std::string const text = outcome([&] { return HeapChecker::resolveAllocSym(*handler); });
  std::string const missing = "1 symbolName:HeapChecker_RecordClientAlloc unable to resolve:";
  EXPECT_EQ(text, missing + Util::resolveSymError() + "|0x0");
  EXPECT_EQ(Util::resolveSymError(), nullptr);
  EXPECT_THAT(outcome([&] { return HeapChecker::resolveFreeSym(*handler); }),
              testing::HasSubstr("HeapChecker_RecordClientFree unable to resolve:"));
}

TEST_F(UtilSelf, PutsSharedMemoryIntoCores) {
  std::ofstream("/proc/self/coredump_filter") << 0x33;
  unsigned filter = 0;
  Util::includeShmemInCore();
  Util::includeShmemInCore();
  std::ifstream("/proc/self/coredump_filter") >> std::hex >> filter;
  EXPECT_EQ(filter, 0x3bU);
  auto const include = [] { return Util::includeShmemInCore(), "done"; };
  BreloTest::tryFaults(
      {row({{"fopen", {EACCES}}}, include, testing::StartsWith("Assert: fscanf failed for file"))});
}
