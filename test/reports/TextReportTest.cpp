#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cfloat>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "Brelo/TaskScheduler.h"
#include "support/ReportedTree.h"

using namespace Brelo;
using BreloTest::IdleTask;
using BreloTest::ReportedTree;
using testing::ContainsRegex;
using testing::HasSubstr;

namespace {

constexpr auto longest = std::numeric_limits<std::int64_t>::max();
constexpr auto shortest = std::numeric_limits<std::int64_t>::min();
constexpr auto mostU32 = std::numeric_limits<std::uint32_t>::max();

TEST(TextReport, IsTheTableToTheBlank) {
  ReportedTree tree;
  tree.worker->taskStatsNameIs("x");
  std::string const text = tree.root->statsRenderTextForDebugToString(false, true, true, true);
  std::string const head =
      R"(Priority RunnableCount     IdleCount DoneCount   TotalRunCount
--------------------------------------------------------------
absolute             0             1         0               0
high                 0             0         1               0
normal               0             1         0               0
low                  0             1         0               0
scavenge             0             0         0               0
Maximum scheduler slip 0.000000 seconds

SP                = Task status and priority % two characters:
   first            T/t for active/idle timers, * for running task or blank
   second           priority and runnable status, upper case for runnable
RunCount          = Number of times task has run
TotalSec          = Total run time in seconds
LastDelay         = Scheduling delay last time task ran, in seconds
MaxDelay          = Maximum scheduling delay encountered, in seconds
200% 500%         = Number of times task used this percentage of quantum
MaxMs             = Maximum single run time in milliseconds
Completed         = Number of times a task with this name has completed
TotalWorkCount    = Counter of total work units processed
DecayAvgWorkCount =    exponential decaying average of work units processed
MaxWorkCount      =    high watermark of work units processed in one run
LastWorkPending   = Work units pending processing
MaxWorkPending    =    high watermark of work units pending processing

)";
  std::string const tables = tree.withKeys(
      "TaskName                     SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n" +
      std::string(28 + 107, '-') +
      "\n"
      "tick@timer      tl          2         2.000  0.000   0.000    0    0     0"
      "          -        -      -         -          -\n"
      "work\"er\x01\xff@worker  n         12         1.500  0.000   0.002    3    1     1"
      " 4294967301      0.1 3000000000         0          0\n"
      "Skipped 1 task with no runs\n\n"
      "TaskName (completed) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Completed "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n" +
      std::string(20 + 112, '-') +
      "\n"
      "gone tasks            h          1         0.000  0.000   0.000    0    0     0    1"
      "          -        -      -         -          -\n"
      "Last 4 scheduler events, absolute timestamp and relative to last event\n" +
      std::string(70, '-') +
      "\n"
      "                  9500 ns since boot          0 µs run start    N work\"er\x01\xff\n"
      "                  1000 ns since boot          8 µs schedulerRunnable top\n\n");
  EXPECT_EQ(text, head + tables);
}

TEST(TextReport, IsTheSameOnEveryWayOut) {
  ReportedTree const tree;
  std::string const stats = tree.root->statsRenderTextForDebugToString(true, true, true, false);
  std::string const history = tree.root->historyRenderTextForDebugToString();
  EXPECT_THAT(history, HasSubstr("run start    N work"));
  testing::internal::CaptureStderr();
  tree.root->statsRenderTextForDebugStdErr();
  tree.root->historyRenderTextForDebugStdErr();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), stats + history);
  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  tree.root->statsRenderTextForDebug(pipe[1], true, true, true, false);
  tree.root->historyRenderTextForDebug(pipe[1]);
  std::string text(stats.size() + history.size() + 1, '\0');
  text.resize(static_cast<std::size_t>(read(pipe[0], text.data(), text.size())));
  EXPECT_EQ(text, stats + history);
  close(pipe[0]);
  EXPECT_EQ(close(pipe[1]), 0) << "neither closes it";
}

/// Everything of a report from its first table on.
std::string tablesOf(std::string const& report) {
  return report.substr(report.find("\n\nTaskName") + 2);
}

TEST(TextReport, KeepsItsFormAtTheEndsOfAllRanges) {
  auto const root = schedulerRootBreloNonShared("r");
  std::vector<std::shared_ptr<IdleTask>> tasks;
  auto const add = [&](char const* name, std::int64_t ns, float average) -> IdleTask& {
    auto const task = std::make_shared<IdleTask>(root, TaskPriority::scavenge, name);
    task->taskTotalRunTime = task->taskLastSchedulingLatency = TaskTimeDuration(ns);
    task->taskSchedulingLatencyHighWaterMark = TaskTimeDuration(ns);
    task->taskRunTimeHighWaterMark = TaskTimeDuration(ns);
    task->taskWorkCountDecayAvg = average;
    task->taskWorkCountHighWaterMark = TaskMaybeU32(1);
    tasks.push_back(task);
    return *task;
  };
  IdleTask& most = add("most", longest, FLT_MAX);
  most.taskRunCount = most.taskQuantumViolation200 = most.taskQuantumViolation500 = mostU32;
  most.taskWorkCountTotal = std::numeric_limits<std::uint64_t>::max();
  most.taskWorkCountHighWaterMark = most.taskWorkPendingHighWaterMark = TaskMaybeU32(mostU32);
  most.taskWorkPending = mostU32;
  add("", 1'234'567'890'500'000, std::numeric_limits<float>::infinity()).taskWorkPendingIs(7);
  add("50% {} %s µs", 999'500'000, -0.25F).taskWorkCountHighWaterMark = TaskMaybeU32();
  add("just more than nothing", 500'001, 0.05F);
  add("less than nothing", -1, -0.0F);
  add("rounds down", -1'900'000, 0.25F);
  add("no number", -60'000'000'000, std::numeric_limits<float>::quiet_NaN());
  add("least", shortest, -std::numeric_limits<float>::infinity());
  for (auto const& task : tasks) {
    TaskStat stat = task->getStats();
    stat.taskCompletedCountIs(task->taskRunCount == 0 ? 12'345 : mostU32);
    root->completedTaskStatsInc(stat.taskNameRef(), stat);
  }
  EXPECT_EQ(
      tablesOf(root->statsRenderTextForDebugToString(true, false, true, false)),
      R"(TaskName               SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Total/DecayA/Max-WorkCount Last/Max-WorkPending
---------------------------------------------------------------------------------------------------------------------------------
most                    s 4294967295 9223372036.855 9223372036.855 9223372036.855 4294967295 4294967295 9223372036854 18446744073709551615 340282346638528859811704183484516925440.0 4294967294 4294967295 4294967294
                        s          0   1234567.890 1234567.890 1234567.890    0    0 1234567890          0      inf      1         7          7
50% {} %s µs           s          0         1.000  1.000   1.000    0    0   999          -        -      -         -          -
just more than nothing  s          0         0.001  0.001   0.001    0    0     0          0      0.1      1         -          -
less than nothing       s          0        -0.000 -0.000  -0.000    0    0     0          0     -0.0      1         -          -
rounds down             s          0        -0.002 -0.002  -0.002    0    0 18446744073709551615          0      0.2      1         -          -
no number               s          0       -60.000 -60.000 -60.000    0    0 18446744073709491616          0      nan      1         -          -
least                   s          0 -9223372036.855 -9223372036.855 -9223372036.855    0    0 18446734850337514762          0     -inf      1         -          -
TaskName (completed)   SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Completed Total/DecayA/Max-WorkCount Last/Max-WorkPending
--------------------------------------------------------------------------------------------------------------------------------------
most                    s 4294967295 9223372036.855 9223372036.855 9223372036.855 4294967295 4294967295 9223372036854 4294967295 18446744073709551615 340282346638528859811704183484516925440.0 4294967294 4294967295 4294967294
                        s          0   1234567.890 1234567.890 1234567.890    0    0 1234567890 12345          0      inf      1         7          7
50% {} %s µs           s          0         1.000  1.000   1.000    0    0   999 12345          -        -      -         -          -
just more than nothing  s          0         0.001  0.001   0.001    0    0     0 12345          0      0.1      1         -          -
less than nothing       s          0        -0.000 -0.000  -0.000    0    0     0 12345          0     -0.0      1         -          -
rounds down             s          0        -0.002 -0.002  -0.002    0    0 18446744073709551615 12345          0      0.2      1         -          -
no number               s          0       -60.000 -60.000 -60.000    0    0 18446744073709491616 12345          0      nan      1         -          -
least                   s          0 -9223372036.855 -9223372036.855 -9223372036.855    0    0 18446734850337514762 12345          0     -inf      1         -          -
)");
}

/// Calls a function in its run.
class Reporter : public Task {
 public:
  using Task::Task;
  void taskExecute() override { report(); }
  std::function<void()> report;
};

TEST(TextReport, SumsTheWholeTreeAlsoAmidItsRuns) {
  auto const root = schedulerRootBreloNonShared("top");
  auto const outer = TaskGroup::TaskGroupIs("outer", TaskPriority::low, false, root);
  auto inner = TaskGroup::TaskGroupIs("inner", TaskPriority::high, false, outer);
  auto const orphan = outer->taskForTest("TaskGroup;inner");
  auto deep = std::make_shared<Reporter>(inner, TaskPriority::normal, "deep");
  auto const idle = std::make_shared<IdleTask>(outer, TaskPriority::normal, "idle");
  inner->completedTaskStatsInc(idle->taskStatsNameRef(), idle->getStats());
  idle->scheduleTask();
  deep->scheduleTask();
  std::string text;
  deep->report = [&] { text = root->statsRenderTextForDebugToString(false, false, true, true); };
  root->handleSchedulerRun();
  EXPECT_THAT(text, HasSubstr("\nhigh                 0             1         0               1\n"
                              "normal               1             1         0               1\n"
                              "low                  0             1         0               1\n"));
  for (char const* row :
       {"\nTaskGroup;outer +\\*l +1 ", "\nTaskGroup;inner +\\*h +1 ", "\ndeep +\\*n +1 "})
    EXPECT_THAT(text, ContainsRegex(row));
  EXPECT_THAT(text, HasSubstr("Skipped 1 task with no runs\n\nTaskName (completed) "));
  EXPECT_THAT(text, HasSubstr("Skipped 1 task with no runs\n\nLast 100 scheduler events"));

  // A parent task that somebody keeps beyond its group is left out while it has no runs.
  deep.reset();
  inner.reset();
  dynamic_cast<TaskImpl&>(*orphan).taskRunCount = 0;
  EXPECT_THAT(root->statsRenderTextForDebugToString(false, false, false, false),
              HasSubstr("Skipped 1 task with no runs\n"));
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(root->statsRenderTextForDebugToString(true, false, false, false),
               "TaskGroup is non-null");
}

TEST(TextReport, WithoutTheEndedTasksLacksTheirTableAndALineOfTheLegend) {
  auto const root = schedulerRootBreloNonShared("r");
  auto const report = [&](bool includeCompleted) {
    return root->statsRenderTextForDebugToString(false, true, includeCompleted, false);
  };
  std::string expected = report(true);
  expected.erase(expected.find("TaskName (completed)"));
  auto const line = expected.find("Completed         =");
  expected.erase(line, expected.find('\n', line) + 1 - line);
  EXPECT_EQ(report(false), expected);
}

TEST(TextReport, ShowsEmptyTables) {
  auto const root = schedulerRootBreloNonShared("r");
  EXPECT_EQ(
      tablesOf(root->statsRenderTextForDebugToString(false, true, true, true)),
      R"(TaskName SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Total/DecayA/Max-WorkCount Last/Max-WorkPending
-------------------------------------------------------------------------------------------------------------------
TaskName (completed) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Completed Total/DecayA/Max-WorkCount Last/Max-WorkPending
------------------------------------------------------------------------------------------------------------------------------------
Last 100 scheduler events, absolute timestamp and relative to last event
------------------------------------------------------------------------

)");
}

/// The layout as the C library has it.
TEST(TextReport, WritesRowsAsPrintfDoes) {
  constexpr unsigned rows = 3000;
  auto const root = schedulerRootBreloNonShared("r");
  std::mt19937_64 random(1);
  auto const duration = [&] { return static_cast<std::int64_t>(random()) >> random() % 64; };
  auto const count = [&] { return static_cast<std::uint32_t>(random()) >> random() % 32; };
  auto const seconds = [](TaskTimeDuration time) {
    return static_cast<double>(time.count()) / 1e9;
  };
  std::vector<std::string> expected;
  for (unsigned i = 0; i < rows; ++i) {
    std::string const name = "name " + std::to_string(i + rows);
    auto const bits = static_cast<std::uint32_t>(random());
    float average;
    std::memcpy(&average, &bits, sizeof average);
    TaskStat stat(root->history().stringCache().intern(name), TaskKey(), TaskPriority::normal,
                  count(), TaskTimeDuration(duration()), random() >> random() % 64, average,
                  TaskMaybeU32(count()), count(), TaskMaybeU32(count()), count(), count(),
                  TaskTimeDuration(duration()), TaskTimeDuration(duration()),
                  TaskTimeDuration(duration()), {});
    stat.taskCompletedCountIs(count());
    char average1[64], row[400];
    std::snprintf(average1, sizeof average1, "%6.1f", double{stat.taskWorkCountDecayAvg});
    std::snprintf(row, sizeof row,
                  "%-20s  n %10u %13.3f %6.3f %7.3f %4u %4u %5lu %4u %10lu %8s %6u %9u %10u\n",
                  name.c_str(), stat.taskRunCount, seconds(stat.taskTotalRunTime),
                  seconds(stat.taskLastSchedulingLatency()),
                  seconds(stat.taskSchedulingLatencyHighWaterMark()), stat.taskQuantumViolation200,
                  stat.taskQuantumViolation500,
                  static_cast<unsigned long>(
                      static_cast<long>(seconds(stat.taskRunTimeHighWaterMark()) * 1000.0)),
                  stat.taskCompletedCount, stat.taskWorkCountTotal, average1,
                  stat.taskWorkCountHighWaterMark.value(), stat.taskWorkPending,
                  stat.taskWorkPendingHighWaterMark.value());
    expected.emplace_back(row);
    root->completedTaskStatsInc(stat.taskNameRef(), stat);
  }
  std::string const text = root->statsRenderTextForDebugToString(true, false, true, false);
  for (auto const& row : expected)
    ASSERT_NE(text.find(row), std::string::npos) << row;
}

}  // namespace
