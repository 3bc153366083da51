#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <locale>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>

#include "Brelo/TaskScheduler.h"
#include "support/ReportedTree.h"

using namespace Brelo;
using BreloTest::IdleTask;
using BreloTest::ReportedTree;
using nlohmann::json;
using testing::HasSubstr;

namespace {

constexpr unsigned noOrder = TaskSchedulerSnapshot::displayOrderUnset;

TEST(JsonReport, IsTheDocumentToTheByte) {
  ReportedTree tree;
  std::string const expected = tree.withKeys(
      R"({"schedulers":{"top":{"schedulerName":"top","isRootScheduler":true,"priorityStats":{)"
      R"("absolute":{"runnableTasks":0,"idleTasks":1,"completedTasks":0,"totalRunCount":0},)"
      R"("high":{"runnableTasks":0,"idleTasks":0,"completedTasks":1,"totalRunCount":0},)"
      R"("normal":{"runnableTasks":0,"idleTasks":1,"completedTasks":0,"totalRunCount":0},)"
      R"("low":{"runnableTasks":0,"idleTasks":1,"completedTasks":0,"totalRunCount":0},)"
      R"("scavenge":{"runnableTasks":0,"idleTasks":0,"completedTasks":0,"totalRunCount":0}},)"
      R"("maxSchedulerSlip":0.0,"tasks":{"tasks":[)"
      R"({"name":"tick","address":"@timer","priority":"low","onRunQueue":false,)"
      R"("currentlyRunning":false,"suspended":false,"hasTimer":true,"timerRunning":false,)"
      R"("runCount":2,"totalRunTime":2.0,"lastSchedulingLatency":0.0,)"
      R"("schedulingLatencyHighWaterMark":0.0,"qv200":0,"qv500":0,"maxMs":0},)"
      "{\"name\":\"work\\\"er\\u0001\xff\","
      R"("address":"@worker","priority":"normal","onRunQueue":false,)"
      R"("currentlyRunning":false,"suspended":false,"hasTimer":false,"timerRunning":false,)"
      R"("runCount":12,"totalRunTime":1.5,"lastSchedulingLatency":2.5e-7,)"
      R"("schedulingLatencyHighWaterMark":0.002,"qv200":3,"qv500":1,"maxMs":1,)"
      R"("workCount":{"total":5,"decayingAvg":0.10000000149011612,"highwater":-1294967296},)"
      R"("workPending":{"pending":0,"highwater":0}}],"skipped":1},)"
      R"("completedTasks":{"tasks":[{"name":"gone tasks","priority":"high","onRunQueue":false,)"
      R"("currentlyRunning":false,"suspended":false,"hasTimer":false,"timerRunning":false,)"
      R"("runCount":1,"totalRunTime":7e-9,"lastSchedulingLatency":0.0,)"
      R"("schedulingLatencyHighWaterMark":0.0,"qv200":0,"qv500":0,"maxMs":0,)"
      R"("completedCount":1}],"skipped":0},"subSchedulers":{},"history":{"historyEntryCount":4,)"
      R"("history":[{"nsSinceBoot":9500,"eventType":"run start",)"
      "\"eventId\":\"N work\\\"er\\u0001\xff\"},"
      R"({"nsSinceBoot":1000,"eventType":"schedulerRunnable","eventId":"top"}]}}}})");
  EXPECT_EQ(tree.root->statsRenderJsonToString(false, true, true), expected);

  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  tree.root->statsRenderJsonToBlockingFdForTest(pipe[1], false, true, true);
  std::string text(expected.size() + 1, '\0');
  text.resize(static_cast<std::size_t>(read(pipe[0], text.data(), text.size())));
  EXPECT_EQ(text, expected);
  EXPECT_EQ(fcntl(pipe[1], F_GETFL) & O_NONBLOCK, 0);
  close(pipe[0]);
  close(pipe[1]);
}

TEST(JsonReport, NestsGroupsAndParsesBack) {
  auto const root = schedulerRootBreloNonShared("top");
  auto const outer = TaskGroup::TaskGroupIs("outer", TaskPriority::low, false, root);
  auto const inner = TaskGroup::TaskGroupIs("inner", TaskPriority::high, false, outer);
  auto const task = std::make_shared<IdleTask>(inner, TaskPriority::normal, "deep");
  task->scheduleTask();

  json const document = json::parse(root->statsRenderJsonToString(true, true, true));
  json const& top = document.at("schedulers").at("top");
  EXPECT_FALSE(top.contains("completedTasks"));
  EXPECT_TRUE(top.contains("history"));
  json const& parent = top["tasks"]["tasks"][0];
  EXPECT_EQ(parent["name"], "TaskGroup;outer");
  json const& outerObject = top["subSchedulers"].at(parent["subScheduler"].get<std::string>());
  EXPECT_EQ(outerObject["isRootScheduler"], false);
  EXPECT_FALSE(outerObject.contains("history"));
  json const& innerObject = outerObject["subSchedulers"].front();
  EXPECT_EQ(innerObject["schedulerName"], "inner");
  EXPECT_EQ(innerObject["tasks"]["tasks"][0]["onRunQueue"], true);
  EXPECT_EQ(innerObject["priorityStats"]["normal"]["runnableTasks"], 1);
  EXPECT_EQ(innerObject["subSchedulers"], json::object());

  // A group whose parent task is left out is shown all the same.
  json const fewer = json::parse(root->statsRenderJsonToString(false, false, false));
  EXPECT_EQ(fewer["schedulers"]["top"]["tasks"], json::parse(R"({"tasks":[],"skipped":1})"));
  EXPECT_EQ(fewer["schedulers"]["top"]["subSchedulers"].size(), 1U);
  task->unscheduleTask();
}

TEST(Snapshot, OutlivesItsTasksAndKnowsItsThread) {
  auto const root = schedulerRootBreloNonShared("top");
  auto task = std::make_shared<IdleTask>(root, TaskPriority::normal, "short-lived");
  auto frozen = root->snapshot("renamed", true, false, true, 7);
  task.reset();
  std::ostringstream text;
  auto context = TaskScheduler::PrintContextIs(text);
  EXPECT_EQ(text.str(), R"({"schedulers":{)");
  frozen->renderJson(*context);
  EXPECT_THAT(text.str(), HasSubstr(R"("renamed":{"schedulerName":"renamed","displayOrder":7,)"));
  EXPECT_THAT(text.str(), HasSubstr("short-lived"));
  context.reset();
  EXPECT_NO_THROW(json::parse(text.str()));

  EXPECT_DEATH(std::thread([&] { frozen.reset(); }).join(),
               "Allocated by thread [0-9]+ freed by [0-9]+");
  EXPECT_DEATH(
      {
        auto other = schedulerRootBreloNonShared("other");
        auto const kept = std::make_shared<IdleTask>(other, TaskPriority::normal, "kept");
        auto const held = other->snapshot("", true, false, false, noOrder);
        const_cast<std::shared_ptr<IdleTask>&>(kept).reset();
        other.reset();
      },
      "Destroying ConstStringCache with open references");
  EXPECT_DEATH(
      {
        std::ostringstream stream;
        auto closed = TaskScheduler::PrintContextIs(stream);
        closed->closeJson();
        closed->closeJson();
      },
      "JSON already closed");
}

/// Writes a million as 1.00.00.00 and a half with a comma.
struct Grouping : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\2"; }
};

TEST(Reports, AreTheSameUnderEveryLocale) {
  ReportedTree const tree;
  auto const all = [&] {
    std::ostringstream stream;  // of the global locale
    tree.root->statsRenderJson(stream, true, true, true);
    tree.root->statsRenderTextForDebug(stream, true, true, true, true);
    return stream.str();
  };
  std::string const expected = all();
  auto const classic = std::locale::global(std::locale(std::locale(), new Grouping));
  std::ostringstream grouped;
  grouped << 12345;
  EXPECT_EQ(grouped.str(), "1.23.45");
  EXPECT_EQ(all(), expected);
  std::locale::global(classic);
}

TEST(FdToStream, TakesOneCharacterAtATime) {
  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  std::string written;
  {
    FdToStream stream(pipe[1], true);
    while (written.size() < 50'000) {
      char const next = static_cast<char>('a' + written.size() % 26);
      stream.put(next);
      written += next;
    }
  }
  std::string got(written.size() + 1, '\0');
  std::size_t size = 0;
  for (ssize_t n = 1; n > 0; size += static_cast<std::size_t>(n))
    n = read(pipe[0], got.data() + size, got.size() - size);
  EXPECT_TRUE(got.substr(0, size) == written);
  close(pipe[0]);
}

TEST(FdToStream, RefusesWhatItCannotWaitFor) {
  int pipe[2];
  ASSERT_EQ(pipe2(pipe, O_NONBLOCK), 0);
  EXPECT_DEATH(FdToStream(pipe[1], false),
               "FileDescriptor [0-9]+ flags 0x801 is non-blocking, not supported");
  EXPECT_DEATH(FdToStream(-1, false), "FileDescriptor -1 flags 0xffffffff is non-blocking");
  close(pipe[0]);
  close(pipe[1]);
}

TEST(FdToStream, GoesOnAfterInterruptedAndShortWrites) {
  static volatile std::sig_atomic_t alarms;
  struct sigaction action = {};  // without SA_RESTART: a write that waits ends early, or not begun
  action.sa_handler = [](int) { alarms = alarms + 1; };
  sigaction(SIGALRM, &action, nullptr);
  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  std::string received;
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
  std::thread reader([&] {
    char block[10'000];
    for (ssize_t n = 1; n > 0; received.append(block, static_cast<std::size_t>(n))) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
      n = std::max<ssize_t>(read(pipe[0], block, sizeof block), 0);
    }
  });
  pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
  itimerval period = {{0, 200}, {0, 200}};
  setitimer(ITIMER_REAL, &period, nullptr);
  std::string expected;
  {
    FdToStream stream(pipe[1], true);
    for (int length = 0; expected.size() < 1'000'000; length = (length * 7 + 1) % 20'011) {
      std::string const piece(static_cast<std::size_t>(length),
                              static_cast<char>('a' + length % 26));
      stream << piece << length;
      expected += piece + std::to_string(length);
    }
    EXPECT_TRUE(stream.flush().good());
  }
  period = {};
  setitimer(ITIMER_REAL, &period, nullptr);
  reader.join();
  EXPECT_GT(alarms, 1);
  EXPECT_EQ(received.size(), expected.size());
  EXPECT_TRUE(received == expected);

  close(pipe[0]);
  signal(SIGPIPE, SIG_IGN);
  ASSERT_EQ(::pipe(pipe), 0);
  close(pipe[0]);
  FdToStream lost(pipe[1], false);
  lost << std::string(5000, 'x');
  EXPECT_TRUE(lost.bad());
  EXPECT_EQ(close(pipe[1]), 0);
  EXPECT_TRUE((FdToStream() << "nowhere").bad());
}

TEST(JsonReport, ShowsZeroesOnceTheFiguresAreCleared) {
  ReportedTree const tree;
  tree.root->clearStats();
  std::string text = tree.root->statsRenderJsonToString(true, true, false);
  std::replace(text.begin(), text.end(), '\xff', '?');  // no UTF-8
  auto const document = json::parse(text);
  json const& top = document["schedulers"]["top"];
  EXPECT_FALSE(top.contains("completedTasks"));
  EXPECT_EQ(top["priorityStats"]["high"]["completedTasks"], 0);
  ASSERT_EQ(top["tasks"]["tasks"].size(), 3U);
  for (json const& task : top["tasks"]["tasks"]) {
    for (auto const* figure : {"runCount", "totalRunTime", "lastSchedulingLatency", "maxMs",
                               "schedulingLatencyHighWaterMark", "qv200", "qv500"})
      EXPECT_EQ(task[figure], 0) << task["name"] << " " << figure;
  }
}

}  // namespace
