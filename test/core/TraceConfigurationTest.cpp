#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <thread>
#include <vector>

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
  EXPECT_EQ(breloDebugSettings(), "TraceConf*/0-3,Other,-Trace*/3");

  setTraceFormat("<%m>");
  setTraceFormat(nullptr);
  testing::internal::CaptureStderr();
  dumpDebugMsg("one", 1, testTrace, "file", "func", 2);
  clearTraceFormat();
  dumpDebugMsg("two", 1, testTrace, "file", "func", 2);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), MatchesRegex("<one>\n.*/1 file:2 two\n"));
}

/// Eight threads with tasks of their own, every level of every module on. Each of their runs
/// leaves a mark.
void traceEverythingOnEightThreads(int runs) {
  std::vector<std::thread> workers;
  for (int t = 0; t < 8; ++t) {
    workers.emplace_back([t, runs] {
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
}

void expectWholeLinesAndEveryMarkInOrder(std::string const& text, int runs) {
  std::istringstream stream(text);
  std::vector<int> next(8);
  int lines = 0;
  for (std::string line; std::getline(stream, line); ++lines) {
    ASSERT_THAT(line, MatchesRegex("<[A-Za-z]+/[0-9]+> [^<]* <end>"));
    unsigned thread = 0;
    int run = 0;
    if (std::sscanf(line.c_str(), "<%*[^>]> mark %u %d", &thread, &run) != 2) continue;
    ASSERT_EQ(run, next.at(thread)++) << thread;
  }
  EXPECT_EQ(next, std::vector<int>(8, runs));
  EXPECT_GT(lines, 2 * 8 * runs) << "the library's own traces are missing";
}

TEST(TraceConfiguration, ThreadsThatTraceEverythingLoseNoLine) {
  setTraceFormat("<%n/%l> %m <end>");
  setupBreloDebug("*");
  testing::internal::CaptureStderr();
  traceEverythingOnEightThreads(100);
  expectWholeLinesAndEveryMarkInOrder(testing::internal::GetCapturedStderr(), 100);

  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  fcntl(ends[0], F_SETPIPE_SZ, 4096);
  int const standardError = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  close(ends[1]);
  std::string text;
  std::thread slowReader([&] {
    char piece[777];
    for (ssize_t n = 1; n > 0;) {
      n = read(ends[0], piece, sizeof piece);
      text.append(piece, static_cast<std::size_t>(n));
      std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
  });
  traceEverythingOnEightThreads(30);
  dup2(standardError, STDERR_FILENO);
  close(standardError);
  slowReader.join();
  expectWholeLinesAndEveryMarkInOrder(text, 30);
}

}  // namespace
