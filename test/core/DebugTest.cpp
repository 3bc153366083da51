#include "Brelo/Debug.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iomanip>
#include <locale>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "Brelo/Assert.h"
#include "Brelo/Thread.h"
#include "support/TraceRecords.h"

namespace {

/// Small enough to be handed over by value, if it could be copied.
struct Pinned {
  explicit Pinned(int value) : number(value) {}
  Pinned(Pinned const&) = delete;
  int number;
};

}  // namespace

template <>
struct fmt::formatter<Pinned> : formatter<int> {
  auto format(Pinned const& pinned, format_context& context) const {
    return formatter<int>::format(pinned.number, context);
  }
};

namespace {

using Brelo::DisplayPointer;
using Brelo::Platform::getDebugHandler;

TEST(Debug, LineCarriesClassFunctionAndPlace) {
  BreloTest::TraceRecords records("%n/%l %f:%L %F|%m");
  auto const handler = getDebugHandler("DebugTest");
  DisplayPointer const pointer(reinterpret_cast<void const*>(0xAB12));
  Brelo::fmtrace(*handler, 3, "file.cpp", "func", 12, "Class", "{} of {}, {} {}", 1, pointer, "the",
                 Pinned(7));
  Brelo::fmtrace(*handler, 15, "file.cpp", "func", 12, nullptr, "{}", DisplayPointer(nullptr));
  Brelo::Platform::DebugStream stream;
  stream << 1.0 / 3 << std::uppercase << std::left << std::setfill('*') << pointer;
  handler->dump(stream, 2, "file.cpp", "func", 12);
  EXPECT_EQ(records.take(),
            "DebugTest/3 file.cpp:12 func|Class::func() 1 of 0x000000000000ab12, the 7\n"
            "DebugTest/15 file.cpp:12 func|NULL\n"
            "DebugTest/2 file.cpp:12 func|0.3333333333330x000000000000ab12\n");
  EXPECT_DEATH(Brelo::fmtrace(*handler, 1, "f", "f", 1, "C", "{} {}", 1), "format_error");
}

struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return '_'; }
  std::string do_grouping() const override { return "\1"; }
};

TEST(Debug, AGlobalLocaleThatGroupsDigitsChangesNoText) {
  std::locale const before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  std::ostringstream grouped;
  grouped << 1234 << " " << DisplayPointer(reinterpret_cast<void const*>(0xAB12));
  EXPECT_EQ(grouped.str(), "1_2_3_4 0x000000000000ab12");
  EXPECT_EQ(Brelo::Impl::vtracestr(true, "C", "f", "g", 1234, "5678", {}), "f:1234: C::g() 5678");
  Brelo::Platform::DebugStream stream;
  stream << 1234 << " " << 0.5;
  EXPECT_EQ(stream.str(), "1234 0.5");
  Brelo::throwOnAssertFailIs(true);
  try {
    Brelo::debugAndAssert(stream, "f", "g", 5678);
  } catch (Brelo::AssertException const& exception) {
    EXPECT_EQ(exception.msg(), "Brelo::AssertException(\"f:g:5678: 1234 0.5\")");
    std::string const what = exception.what();
    std::string const backtrace = what.substr(what.find("Timestamp:"));
    std::regex const line("(Timestamp:\\d+\\.\\d{6} tid:\\d+ Backtrace:|.*\\[0x[0-9a-f]+\\])\n");
    EXPECT_EQ(std::regex_replace(backtrace, line, ""), "");
  }
  EXPECT_THAT(Brelo::toThreadIdString(std::this_thread::get_id()), testing::MatchesRegex("[0-9]+"));
  std::locale::global(before);
}

TEST(Debug, HandlersOfOneNameShareOneMaskAndEvaluateNothingIfOff) {
  BreloTest::TraceRecords records("%l %m");
  auto const handler = getDebugHandler("DebugTest");
  static Brelo::ModuleTrace const module("DebugTest");
  int evaluated = 0;
  for (bool const on : {false, true}) {
    handler->enabledIs(15, !on);
    handler->enabledIs(5, on);
    BRELO_TRACE(*getDebugHandler("DebugTest"), 5, "Class", "{}", ++evaluated);
    BRELO_TRACE(module, 5, nullptr, "{}", ++evaluated);
    std::string const text = Brelo::Impl::vfmthrow(*handler, 5, "C", "f", "g", 1, "{{}}", {});
    EXPECT_EQ(text, "C::g() {}");
    EXPECT_EQ(records.take(), on ? "5 Class::TestBody() 1\n5 2\n5 C::g() {}\n" : "");
    EXPECT_EQ(evaluated, on ? 2 : 0);
    EXPECT_EQ(*handler->levelsEnabled(), on ? 0x20 : 0x8000);
    EXPECT_EQ(*getDebugHandler("DebugTestOther")->levelsEnabled(), 0);
  }
}

}  // namespace
