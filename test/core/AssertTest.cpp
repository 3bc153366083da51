#include "Brelo/Assert.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Brelo/Backtrace.h"
#include "support/ChildProcess.h"
#include "support/TraceRecords.h"

using Brelo::BacktraceTracker;
using testing::HasSubstr;

namespace {

auto const handler = Brelo::Platform::getDebugHandler("AssertTest");

void failFormatted() {
  Brelo::fmassert(*handler, "C", "file.cpp", "func", 12, "{} < {}", 1, 2);
}

void failStreamed() {
  Brelo::Platform::DebugStream stream;
  stream << "1 < " << 2;
  Brelo::debugAndAssert(stream, "file.cpp", "func", 12);
}

constexpr char const* formattedTrace = "AssertTest/0 file.cpp:12 file.cpp:12: C::func() 1 < 2\n";
constexpr char const* streamedTrace = "Assert/0 file.cpp:12 file.cpp:func:12: 1 < 2\n";

template <class Failure>
std::string thrownBy(Failure failure) {
  try {
    failure();
  } catch (Brelo::AssertException const& exception) {
    return exception.msg();
  }
  return "nothing";
}

void expectThrowsAndFullTracker() {
  BreloTest::TraceRecords records("%n/%l %f:%L %m");
  for (bool const force : {true, false}) {
    Brelo::forceTraceOnAssertIs(force);
    handler->enabledIs(0, !force);
    EXPECT_EQ(thrownBy(failFormatted), "Brelo::AssertException(\"file.cpp:12: C::func() 1 < 2\")");
    EXPECT_EQ(records.take(), force ? formattedTrace : "");
    EXPECT_EQ(thrownBy(failStreamed), "Brelo::AssertException(\"file.cpp:func:12: 1 < 2\")");
    EXPECT_EQ(records.take(), force ? streamedTrace : "");
    ASSERT_EQ(BacktraceTracker::tracked().size(), 1U);
    EXPECT_EQ(BacktraceTracker::tracked()[0].message(), "file.cpp:func:12: 1 < 2");
  }
}

TEST(Assert, ThrowsOnAnyThreadWithATraceOnlyIfForced) {
  BacktraceTracker::enabledIs(true);
  BacktraceTracker::capacityIs(1);
  Brelo::throwOnAssertFailIs(true);
  expectThrowsAndFullTracker();
  std::thread(expectThrowsAndFullTracker).join();

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 50; ++i)
        EXPECT_THAT(thrownBy(failFormatted), HasSubstr("(\"file.cpp:12: C::func() 1 < 2\")"));
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(BacktraceTracker::tracked().size(), 1U);
  EXPECT_DEATH(Brelo::fmassert("C", "f", "f", 1, "{} {}", 1), "format_error");
}

TEST(Assert, EndsTheProcessOnAnyThreadWithATraceForcedOrNot) {
  BacktraceTracker::enabledIs(true);
  BacktraceTracker::capacityIs(1);
  BacktraceTracker::backtraceIs("full");
  for (bool const force : {true, false}) {
    Brelo::forceTraceOnAssertIs(force);
    EXPECT_DEATH(failFormatted(), testing::AllOf(HasSubstr(formattedTrace),
                                                 HasSubstr("Brelo::Assert aborting because: "
                                                           "file.cpp:12: C::func() 1 < 2\n"
                                                           "terminate called without")));
    EXPECT_DEATH(std::thread(failStreamed).join(),
                 testing::AllOf(HasSubstr(streamedTrace),
                                HasSubstr("Brelo::Assert aborting because: "
                                          "file.cpp:func:12: 1 < 2\nterminate called without")));
  }
  EXPECT_DEATH(Brelo::fmassert(nullptr, "f.cpp", "func", 12, "{} < {}", 1, 2),
               HasSubstr("Assert/0 f.cpp:12 f.cpp:12: 1 < 2\n"));
}

/// A pipe that does not block and takes one long record, but not another.
void standardErrorIsAlmostFullPipe() {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
  ASSERT_EQ(fcntl(ends[0], F_SETPIPE_SZ, 4096), 4096);
  dup2(ends[1], STDERR_FILENO);
}

void standardErrorIsBrokenPipe() {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  dup2(ends[1], STDERR_FILENO);
  close(ends[0]);
}

TEST(Assert, IsNotSurvivedWhereStandardErrorTakesNothing) {
  signal(SIGPIPE, SIG_IGN);
  std::string const text(3000, 'x');
  void (*const fates[])() = {[] { close(STDERR_FILENO); },
                             [] { dup2(open("/dev/full", O_WRONLY), STDERR_FILENO); },
                             standardErrorIsBrokenPipe, standardErrorIsAlmostFullPipe};
  std::function<void()> const failures[] = {
      [&] { Brelo::fmassert(nullptr, "f.cpp", "func", 12, "{}", text); },
      [&] {
        Brelo::Platform::DebugStream stream;
        stream << text;
        Brelo::debugAndAssert(stream, "f.cpp", "func", 12);
      }};
  for (auto const& fate : fates) {
    for (auto const& failure : failures) {
      EXPECT_EXIT((fate(), failure()), testing::KilledBySignal(SIGABRT), "");
      EXPECT_TRUE(BreloTest::passesInChild([&] {
        Brelo::throwOnAssertFailIs(true);
        fate();
        EXPECT_THROW(failure(), Brelo::AssertException);
      }));
    }
  }
}

}  // namespace
