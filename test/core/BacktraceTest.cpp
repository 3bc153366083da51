#include "Brelo/Backtrace.h"

#include <execinfo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <thread>
#include <vector>

#include "Brelo/Assert.h"
#include "Brelo/Exception.h"
#include "ZelBrelo/BacktraceTracker.h"

using namespace Brelo;
using testing::HasSubstr;

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

std::vector<std::string> messages() {
  std::vector<std::string> all;
  for (TrackedBacktrace const& entry : BacktraceTracker::tracked())
    all.push_back(entry.message());
  return all;
}

TEST(BacktraceTracker, KeepsTheLatestWhileEnabled) {
  BacktraceTracker::backtraceIs("unheard");
  EXPECT_EQ(BacktraceTracker::capacity(), 0U);
  BacktraceTracker::enabledIs(true);
  EXPECT_EQ(BacktraceTracker::capacity(), 100U);
  for (int i = 0; i < 101; ++i) {
    try {
      RuntimeException::throwException(std::to_string(i));
    } catch (RuntimeException const&) {
    }
  }
  EXPECT_EQ(messages().size(), 100U);
  EXPECT_EQ(messages().front(), "1");
  BacktraceTracker::capacityIs(3);
  EXPECT_EQ(messages(), (std::vector<std::string>{"98", "99", "100"}));
  BacktraceTracker::capacityIs(4);
  BacktraceTracker::backtraceIs("more");
  EXPECT_EQ(messages(), (std::vector<std::string>{"98", "99", "100", "more"}));
  BacktraceTracker::enabledIs(false);
  EXPECT_EQ(messages().size(), 4U);
  BacktraceTracker::clear();
  EXPECT_EQ(BacktraceTracker::capacity(), 0U);
}

TEST(BacktraceTracker, IsReachedThroughTheHostsGenericInterface) {
  auto const invoke = [](char const* attribute, Zel::GenericValue const& argument = {}) {
    return Zel::GenericIfImpl::invoke("ZelBrelo::BacktraceTracker", attribute, argument);
  };
  throwOnAssertFailIs(true);
  EXPECT_THROW(invoke("capacityIs", std::uint32_t{5}), AssertException);
  invoke("enabledIs", true);
  EXPECT_EQ(std::get<bool>(invoke("enabled")), true);
  EXPECT_THROW(invoke("capacityIs", std::uint32_t{0}), AssertException);
  invoke("clear");
  invoke("capacityIs", std::uint32_t{7});
  EXPECT_EQ(std::get<std::uint32_t>(invoke("capacity")), 7U);
  invoke("backtraceIs", Zel::String("hello"));
  invoke("backtraceIs", Zel::String());
  EXPECT_EQ(messages(), (std::vector<std::string>{"hello", ""}));
  EXPECT_THAT(std::get<Zel::String>(invoke("printAll")).str(),
              HasSubstr("Exception message:hello\nTimestamp:"));
  EXPECT_THROW(invoke("capacityIs", true), std::invalid_argument);
  EXPECT_THROW(invoke("reset"), std::invalid_argument);
}

TEST(BacktraceTracker, ObeysTheDispatchCodes) {
  Zel::TypeRecord const& type = *Zel::TypeImpl::type("ZelBrelo::BacktraceTracker");
  ASSERT_EQ(type.attributeCount, 7U);
  ZelBrelo::BacktraceTracker self, other;
  Zel::GenericValue result;
  EXPECT_EQ(type.genericIfAttributeOp(&result, &self, &type.attributes[1], 9, nullptr), 1);
  Zel::AttributeRecord beyond = type.attributes[6];
  beyond.id = 9;
  EXPECT_EQ(type.genericIfAttributeOp(&result, &self, &beyond, 10, nullptr), 2);
  EXPECT_EQ(type.genericIfAttributeOp(&result, &self, nullptr, 11, &other), 0);
  EXPECT_EQ(result, Zel::GenericValue(false));
  EXPECT_EQ(type.genericIfAttributeOp(&result, &self, nullptr, 12, &other), 0);
  EXPECT_EQ(result, Zel::GenericValue(true));
  EXPECT_EQ(type.genericIfAttributeOp(&result, &self, nullptr, 13, &other), 1);
  EXPECT_THROW(type.hash(&self), std::logic_error);
}

}  // namespace
