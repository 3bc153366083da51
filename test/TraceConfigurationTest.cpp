#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <thread>

#include "Brelo/Debug.h"
#include "Brelo/Thread.h"
#include "support/WorkTasks.h"

using namespace Brelo::Platform;
using testing::MatchesRegex;

namespace {

Brelo::ModuleTrace const testTrace("TraceConfigurationTest");

TEST(TraceConfiguration, SettingsAreAppended) {
  std::tuple<char const*, void (*)(char const*), char const*, char const*> const cases[] = {
      {"", setupBreloDebug, "A/1", "A/1"},
      {"A/1", setupBreloDebug, "B,C", "A/1,B,C"},
      {"A", setupBreloDebug, nullptr, "A"},
      {"A", clearBreloDebug, "A,B", "A,-A,-B"},
      {"A", clearBreloDebug, " B,,C ", "A,- B,-,-C "},
      {"", clearBreloDebug, "", "-"},
      {"A", clearBreloDebug, nullptr, "A"},
  };
  for (auto const& [before, change, settings, after] : cases) {
    setenv("TRACE", before, 1);
    change(settings);
    EXPECT_STREQ(getenv("TRACE"), after);
  }
}

TEST(TraceConfiguration, ChangesApplyAtOnce) {
  unsetenv("TRACE");
  setupBreloDebug("TraceConf*/0-3,Other");
  EXPECT_TRUE(testTrace.enabled(3));
  clearBreloDebug("Trace*/3");
  EXPECT_FALSE(testTrace.enabled(3));
  testing::internal::CaptureStdout();
  dumpBreloDebugMap();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "TraceConf*/0-3\nOther\n-Trace*/3\n");

  setTraceFormat("<%m>");
  setTraceFormat(nullptr);
  testing::internal::CaptureStderr();
  dumpDebugMsg("one", 1, testTrace, "file", "func", 2);
  clearTraceFormat();
  dumpDebugMsg("two", 1, testTrace, "file", "func", 2);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), MatchesRegex("<one>\n.*/1 file:2 two\n"));
}

TEST(TraceConfiguration, ThreadsThatTraceEverythingLoseNoLine) {
  constexpr int threads = 8, runs = 100;
  setTraceFormat("<%n/%l> %m <end>");
  setupBreloDebug("*");
  testing::internal::CaptureStderr();
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([t] {
      Brelo::useThreadLocalSingletons();
      int run = 0;
      auto const task =
          BreloTest::workTask(Brelo::schedulerRootBrelo(), "tracing", [&](auto& self) {
            BRELO_TRACE(testTrace, run % 16, nullptr, "mark {} {}", t, run);
            if (++run < runs) self.scheduleTask();
          });
      task->scheduleTask();
      while (run < runs)
        doEventLoop(0.01);
    });
  }
  for (auto& worker : workers)
    worker.join();
  std::istringstream text(testing::internal::GetCapturedStderr());
  std::set<std::string> marks;
  int lines = 0;
  for (std::string line; std::getline(text, line); ++lines) {
    EXPECT_THAT(line, MatchesRegex("<[A-Za-z]+/[0-9]+> [^<]* <end>"));
    if (auto const mark = line.find("mark "); mark != line.npos) marks.insert(line.substr(mark));
  }
  EXPECT_EQ(marks.size(), std::size_t{threads} * runs);
  EXPECT_GT(lines, 2 * threads * runs) << "the library's own traces are missing";
}

}  // namespace
