#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Brelo/TaskScheduler.h"
#include "support/Backend.h"
#include "support/Handlers.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;

struct Descriptor : Brelo::FileDescriptorTask {
  explicit Descriptor(std::shared_ptr<Brelo::TaskScheduler> scheduler)
      : FileDescriptorTask(std::move(scheduler), Brelo::TaskPriority::normal, "fd") {}

  void taskExecuteReadable() override { readable(); }
  void taskExecuteWritable() override { writable(); }
  void handleTaskBusy() override { log += taskBusy() ? "+" : "-"; }

  std::string log;
  std::function<void()> readable = [this] { log += "r"; }, writable = [this] { log += "w"; };
};

struct Setting {
  SocketPair pair;
  std::shared_ptr<Brelo::TaskSchedulerRoot> root = Brelo::schedulerRootBreloNonShared("root");
  std::shared_ptr<Descriptor> task = std::make_shared<Descriptor>(root);
};

struct FileDescriptorTask : Setting, testing::Test {};
struct FileDescriptorTaskLoop : OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(FileDescriptorTaskLoop);

TEST_P(FileDescriptorTaskLoop, EchoesWithReadsThatStayOnAndOneShotWrites) {
  run([] {
    Setting s;
    unsigned got = 0, sent = 0;
    s.task->readable = [&] {
      s.task->taskWorkCountInc(3);
      // It may be seen ready once more before the run that empties it.
      char byte;
      if (read(s.pair.near(), &byte, 1) < 0) return;
      ++got;
      s.task->taskWatchWritableIs(true);
    };
    s.task->writable = [&] {
      s.task->taskWorkCountInc(2);
      EXPECT_FALSE(s.task->taskWatchWritable());
      if (++sent < got) s.task->taskWatchWritableIs(true);
    };
    s.task->taskWatchFdIs(s.pair.near());
    for (int i = 0; i < 5; ++i)
      s.pair.send();
    EXPECT_TRUE(runUntil([&] { return sent == 5; }));
    Brelo::Platform::doEventLoop(0.005);  // still writable, but nobody wants to know
    EXPECT_EQ(s.task->taskWorkCountWritableTotal(), 10U);
    EXPECT_EQ(s.task->taskWorkCountReadableTotal(), 3 * s.task->taskRunCountReadable());
  });
}

/// Reads a byte at each run and counts what it is told.
struct ByteReader {
  struct Task : Descriptor {
    using Descriptor::Descriptor;
    void readFdEvent(int fd) override { ++reported, Descriptor::readFdEvent(fd); }
    unsigned reported = 0;
  };

  explicit ByteReader(std::shared_ptr<Brelo::TaskSchedulerRoot> const& root)
      : task(std::make_shared<Task>(root)) {
    task->readable = [this] {
      char byte;
      task->log += read(pair.near(), &byte, 1) == 1 ? "r" : "e";
    };
    task->taskWatchFdIs(pair.near());
  }
  unsigned takeReported() { return std::exchange(task->reported, 0); }
  /// How often the input of a run was told of.
  unsigned takeReportedOfRun() {
    EXPECT_TRUE(runUntil([this] { return task->log == "+r-"; }));
    task->log.clear();
    return takeReported();
  }
  SocketPair pair;
  std::shared_ptr<Task> task;
};

TEST_P(FileDescriptorTaskLoop, ReportsEachOfManyReadyOnesAtMostTwice) {
  run([] {
    auto const root = Brelo::schedulerRootBreloNonShared("root");
    std::vector<std::unique_ptr<ByteReader>> clients(100);
    for (auto& client : clients)
      client = std::make_unique<ByteReader>(root);
    for (int round = 0; round < 3; ++round) {
      for (auto& client : clients)
        client->pair.send();
      for (auto& client : clients) {
        EXPECT_LE(client->takeReportedOfRun(), 2U);
      }
    }
  });
}

TEST_P(FileDescriptorTaskLoop, TellsWhatCannotRunOnceAndWaitsThenAsIfThereWereNothing) {
  run([] {
    auto const root = Brelo::schedulerRootBreloNonShared("root");
    ByteReader client(root);
    auto const timesToldIn10Ms = [&] {
      client.pair.send();
      for (int i = 0; i < 10; ++i)
        Brelo::Platform::doEventLoop(0.001);
      return client.takeReported();
    };
    client.task->taskSuspendedIs(true);
    EXPECT_EQ(timesToldIn10Ms(), 1U);
    client.task->taskSuspendedIs(false);
    client.takeReportedOfRun();
    root->suspendedIs(true);
    EXPECT_EQ(timesToldIn10Ms(), 1U);
    root->suspendedIs(false);
    client.takeReportedOfRun();

    // A run that is taken back leaves the watch as it was.
    root->suspendedIs(true);
    EXPECT_EQ(timesToldIn10Ms(), 1U);
    registeredTask(*root, "fd:read")->unscheduleTask();
    root->suspendedIs(false);
    client.task->log.clear();
    client.takeReportedOfRun();
  });
}

TEST_P(FileDescriptorTaskLoop, AWriteWishThatStandsIsGivenToTheNextDescriptor) {
  run([] {
    Setting s;
    s.task->taskWatchFdIs(s.pair.near());
    s.task->taskWatchWritableIs(true);
    s.root->suspendedIs(true);
    EXPECT_TRUE(runUntil([&] { return s.task->taskScheduledWritable(); }));
    s.root->suspendedIs(false);
    s.task->taskWatchFdIs(s.pair.ends[1]);
    EXPECT_FALSE(s.task->taskScheduledWritable());
    EXPECT_TRUE(runUntil([&] { return s.task->log.find("w") != std::string::npos; }));
  });
}

TEST_F(FileDescriptorTask, ResumedWithoutReadInterestItHasNoReadRun) {
  task->taskSuspendedIs(true);
  task->taskWatchReadableIs(false);
  task->taskSuspendedIs(false);
  runUntilIdle(*root);
  EXPECT_EQ(task->log.find("r"), std::string::npos);
}

TEST_F(FileDescriptorTask, EventsFoldIntoOneRunAndChangesTakeRunsBack) {
  task->taskWatchFdIs(pair.near());
  root->clearHistory();
  task->readFdEvent(pair.near());
  task->readFdEvent(pair.near());
  task->taskWatchWritableIs(true);
  task->writeFdEvent(pair.near());
  std::map<Brelo::TaskSchedulerEventType, int> events;
  for (auto const& event : root->history().events())
    ++events[event.eventType()];
  EXPECT_EQ(events[Brelo::TaskSchedulerEventType::fdReadable], 2);
  EXPECT_EQ(events[Brelo::TaskSchedulerEventType::fdWritable], 1);
  task->taskWatchWritableIs(false);
  task->scheduleTaskWritable();
  runUntilIdle(*root);
  EXPECT_EQ(task->log, "+rw-");

  task->scheduleTaskReadable();
  task->scheduleTaskWritable();
  task->taskWatchFdIs(pair.near());
  EXPECT_TRUE(task->taskScheduledReadable() && task->taskScheduledWritable());
  task->taskWatchFdIs(pair.ends[1]);
  EXPECT_FALSE(task->taskScheduled());
  task->scheduleTaskReadable();
  task->scheduleTaskWritable();
  task->taskWatchReadableIs(false);
  task->taskWatchWritableIs(true);
  EXPECT_TRUE(!task->taskScheduledReadable() && task->taskScheduledWritable());
  task->taskWatchWritableIs(false);
  EXPECT_FALSE(task->taskScheduledWritable());
}

TEST_F(FileDescriptorTask, TheWriteTaskTakesOverWhatTheOwnerWasToldBefore) {
  task->taskSuspendedIs(true);
  task->taskTestYieldRatioIs(9);
  task->taskStatsNameIs("stats");
  task->scheduleTaskWritable();
  auto const write = registeredTask(*root, "fd:write");
  EXPECT_TRUE(write->taskSuspended() && write->taskTestYieldRatio() == 9);
  EXPECT_EQ(write->taskStatsName(), "stats:write");
  task->taskSuspendedIs(false);  // gives both directions a run
  task->readable = [&] { task.reset(); };
  runUntilIdle(*root);
  EXPECT_EQ(write->taskRunCount, 1U) << "empty, as the owner has gone";
}

TEST_F(FileDescriptorTask, FiguresArePerDirection) {
  EXPECT_EQ(task->taskWorkPendingWritable() + task->taskRunCountWritable(), 0U);
  EXPECT_EQ(task->taskWorkCountWritableHighWaterMark(), Brelo::TaskMaybeU32(0));
  EXPECT_EQ(task->taskWorkPendingWritableHighWaterMark(), Brelo::TaskMaybeU32(0));
  EXPECT_EQ(task->taskWorkCountWritableDecayAvg(), 0);
  task->taskWatchFdIs(pair.near());
  task->readable = [&] {
    task->taskWorkPendingIs(7);
    task->taskWorkCountReadableInc(5);
  };
  task->writable = [&] { task->taskWorkCountInc(20), task->taskWorkPendingIs(1); };
  for (int run = 0; run < 3; ++run) {
    task->scheduleTaskReadable();
    if (run > 0) task->scheduleTaskWritable();
    runUntilIdle(*root);
  }
  task->taskWorkPendingReadableIs(4);
  EXPECT_EQ(task->taskRunCount(), 5U);
  EXPECT_EQ(task->taskRunCountWritable(), 2U);
  EXPECT_EQ(task->taskWorkCountReadableHighWaterMark().value(), 5U);
  EXPECT_EQ(task->taskWorkCountWritableHighWaterMark().value(), 20U);
  EXPECT_GT(task->taskWorkCountWritableDecayAvg(), task->taskWorkCountReadableDecayAvg());
  EXPECT_EQ(task->taskWorkPendingReadable() * 10 + task->taskWorkPendingWritable(), 41U);
  EXPECT_EQ(task->taskWorkPendingReadableHighWaterMark().value(), 7U);
  EXPECT_EQ(task->taskWorkPendingWritableHighWaterMark().value(), 1U);

  task->taskQuantumIs(Brelo::TaskTimeDuration(5'000'000));
  task->taskForceYieldInTestIs(true);
  auto const write = registeredTask(*root, "fd:write");
  EXPECT_TRUE(task->taskForceYieldInTest() && write->taskForceYieldInTest());
  EXPECT_TRUE(task->taskQuantum() == write->taskQuantum() && !task->taskSuspended());
}

TEST_F(FileDescriptorTask, WrongUseEndsTheProcess) {
  task->taskWatchFdIs(pair.near());
  EXPECT_DEATH(task->writeFdEvent(pair.near()), "called with taskWatchWritable off");
  EXPECT_DEATH(task->taskWorkPendingWritableIs(1), "WriteTask not created");

  // After a handler has thrown, neither is entered again.
  task->readable = [] { throw std::runtime_error("x"); };
  task->scheduleTaskReadable();
  task->scheduleTaskWritable();
  EXPECT_THROW(root->handleSchedulerRun(), std::runtime_error);
  EXPECT_DEATH(root->handleSchedulerRun(), "Executing task already set");
}

}  // namespace
