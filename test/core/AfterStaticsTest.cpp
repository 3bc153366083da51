// Traces, exceptions, assertions and the tracker work when the static objects have gone.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <thread>

#include "Brelo/Assert.h"
#include "Brelo/Backtrace.h"
#include "Brelo/Debug.h"
#include "Brelo/UtilSockets.h"

extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* object);

namespace {

void (*afterStatics)() = nullptr;

// Registered before any library makes its static objects, and for the process, not for this
// program, this function is the last one to run.
[[gnu::section(".preinit_array"), gnu::used]] void (*registersLast)() = [] {
  __cxa_atexit(
      [](void*) {
        if (afterStatics != nullptr) afterStatics();
      },
      nullptr, nullptr);
};

Brelo::ModuleTrace const trace("AfterStatics");

void fail(void (*failure)()) {
  try {
    failure();
  } catch (Brelo::AssertException const& exception) {
    std::cerr << "caught " << exception.what();
  }
}

void useAll() {
  BRELO_TRACE(trace, 7, "Own", "trace");
  fail([] { BRELO_FAIL("Own", "no handler"); });
  fail([] { Brelo::Util::setSocketSendBufferSize(-1, 1); });
  Brelo::BacktraceTracker::printAll(std::cerr);
}

TEST(AfterStatics, EveryThreadTracesThrowsAndAsserts) {
  using testing::HasSubstr;
  auto const ends = [] {
    Brelo::Platform::setTraceFormat("%n/%l %m");
    Brelo::Platform::setupBreloDebug("AfterStatics");
    Brelo::throwOnAssertFailIs(true);
    Brelo::BacktraceTracker::enabledIs(true);
    afterStatics = [] {
      useAll();
      std::thread(useAll).join();
      _exit(static_cast<int>(Brelo::BacktraceTracker::tracked().size()));
    };
    std::exit(99);
  };
  EXPECT_EXIT(
      ends(), testing::ExitedWithCode(4),
      testing::AllOf(HasSubstr("AfterStatics/7 Own::useAll() trace\n"), HasSubstr("Assert/0 "),
                     HasSubstr("BreloUtil/0 "), HasSubstr("caught Brelo::AssertException(\""),
                     HasSubstr("Exception message:Brelo/system/UtilSockets.cpp:")));
}

}  // namespace
