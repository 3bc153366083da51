#include "Brelo/Debug.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <memory>
#include <string>

#include "support/TraceRecords.h"

namespace {

using Brelo::DisplayPointer;
using Brelo::Platform::getDebugHandler;

TEST(Debug, LineCarriesClassFunctionAndPlace) {
  BreloTest::TraceRecords records("%n/%l %f:%L %F|%m");
  auto const handler = getDebugHandler("DebugTest");
  DisplayPointer const pointer(reinterpret_cast<void const*>(0xAB12));
  Brelo::fmtrace(*handler, 3, "file.cpp", "func", 12, "Class", "{} of {}", 1, pointer);
  Brelo::fmtrace(*handler, 15, "file.cpp", "func", 12, nullptr, "{}", DisplayPointer(nullptr));
  Brelo::Platform::DebugStream stream;
  stream << 1.0 / 3 << std::uppercase << std::left << std::setfill('*') << pointer;
  handler->dump(stream, 2, "file.cpp", "func", 12);
  EXPECT_EQ(records.take(),
            "DebugTest/3 file.cpp:12 func|Class::func() 1 of 0x000000000000ab12\n"
            "DebugTest/15 file.cpp:12 func|NULL\n"
            "DebugTest/2 file.cpp:12 func|0.3333333333330x000000000000ab12\n");
  EXPECT_DEATH(Brelo::fmtrace(*handler, 1, "f", "f", 1, "C", "{} {}", 1), "format_error");
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
