#include "Brelo/Assert.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/TraceRecords.h"

namespace {

using testing::HasSubstr;

void failStreamed() {
  Brelo::Platform::DebugStream stream;
  stream << "1 < " << 2;
  Brelo::debugAndAssert(stream, "file.cpp", "func", 12);
}

template <class Failure>
std::string thrownBy(Failure failure) {
  try {
    failure();
  } catch (Brelo::AssertException const& exception) {
    return exception.msg();
  }
  return "nothing";
}

TEST(Assert, ThrowsTheWholeTextAndTracesItWhenForced) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto const handler = Brelo::Platform::getDebugHandler("AssertTest");
  auto const failFormatted = [&] {
    Brelo::fmassert(*handler, "C", "file.cpp", "func", 12, "{} < {}", 1, 2);
  };
  BreloTest::TraceRecords records("%n/%l %f:%L %F|%m");
  Brelo::throwOnAssertFailIs(true);
  for (bool const force : {true, false}) {
    Brelo::forceTraceOnAssertIs(force);
    handler->enabledIs(0, !force);
    EXPECT_EQ(thrownBy(failFormatted), "Brelo::AssertException(\"file.cpp:12: C::func() 1 < 2\")");
    EXPECT_EQ(thrownBy(failStreamed), "Brelo::AssertException(\"file.cpp:func:12: 1 < 2\")");
    EXPECT_EQ(records.take(), force ? "AssertTest/0 file.cpp:12 func|file.cpp:12: C::func() 1 < 2\n"
                                      "Assert/0 file.cpp:12 func|file.cpp:func:12: 1 < 2\n"
                                    : "");
  }
  EXPECT_DEATH(Brelo::fmassert("C", "f", "f", 1, "{} {}", 1), "format_error");
  Brelo::throwOnAssertFailIs(false);
}

TEST(Assert, EndsTheProcessWithATraceUnlessItThrows) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Brelo::forceTraceOnAssertIs(false);
  EXPECT_DEATH(Brelo::fmassert(nullptr, "f.cpp", "func", 12, "{} < {}", 1, 2),
               testing::AllOf(HasSubstr("Assert/0 f.cpp:12 f.cpp:12: 1 < 2\n"),
                              HasSubstr("Brelo::Assert aborting because: f.cpp:12: 1 < 2\n"
                                        "terminate called without")));
}

}  // namespace
