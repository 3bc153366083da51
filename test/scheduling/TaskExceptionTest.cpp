// Who deals with what tasks let pass.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Brelo/FileDescriptorTask.h"
#include "Brelo/Platform.h"
#include "Brelo/TaskGroup.h"
#include "Brelo/TaskScheduler.h"
#include "support/Backend.h"
#include "support/Handlers.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using Brelo::TaskPriority;
using Brelo::Platform::doEventLoop;

class TaskException : public OnBothBackends {
 protected:
  /// What the handler was asked for, as "task: text".
  void askFor(Brelo::TaskSchedulerRoot& root, bool dealtWith) {
    root.taskExceptionHandlerIs([this, dealtWith](Brelo::_TaskBase& task) {
      try {
        throw;
      } catch (std::exception const& error) {
        asked.push_back(task.taskName() + ": " + error.what());
      }
      return dealtWith;
    });
  }

  std::vector<std::string> asked;
};
INSTANTIATE_BOTH_BACKENDS(TaskException);

struct Fails {
  void operator()(WorkTask& task) const {
    if (--left > 0) task.scheduleTask();
    throw std::runtime_error("no");
  }
  std::shared_ptr<int> count = std::make_shared<int>(3);
  int& left = *count;
};

TEST_P(TaskException, DealtWithIsARunLikeAnyOther) {
  run([this] {
    auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
    auto const group = Brelo::TaskGroup::TaskGroupIs("group", TaskPriority::normal, false, root);
    askFor(*root, true);
    for (std::shared_ptr<Brelo::TaskScheduler> const& scheduler :
         {std::shared_ptr<Brelo::TaskScheduler>(root),
          std::shared_ptr<Brelo::TaskScheduler>(group)}) {
      auto const thrower = workTask(scheduler, "thrower", Fails());
      auto const other = workTask(scheduler, "other");
      asked.clear();
      thrower->scheduleTask();
      other->scheduleTask();
      doEventLoop();
      EXPECT_EQ(asked, (std::vector<std::string>{"thrower: no", "thrower: no", "thrower: no"}));
      EXPECT_EQ(thrower->taskRunCount, 3U);
      EXPECT_GT(thrower->taskTotalRunTime.count(), 0);
      EXPECT_EQ(other->taskRunCount, 1U);
      EXPECT_FALSE(thrower->taskBusy() || thrower->taskStatus().taskCurrentlyRunning());
      EXPECT_FALSE(scheduler->schedulerHasRunnableTasks());
    }
  });
}

TEST_P(TaskException, RefusedOrUnaskedGoesOnToTheEntryOnce) {
  run([this] {
    auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
    auto const outer = Brelo::TaskGroup::TaskGroupIs("outer", TaskPriority::normal, false, root);
    auto const inner = Brelo::TaskGroup::TaskGroupIs("inner", TaskPriority::normal, false, outer);
    askFor(*root, false);
    auto const thrower = workTask(inner, "thrower", Fails());
    thrower->scheduleTask();
    EXPECT_THROW(doEventLoop(), std::runtime_error);
    EXPECT_EQ(asked, (std::vector<std::string>{"thrower: no"}));

    root->taskExceptionHandlerIs([](Brelo::_TaskBase&) -> bool { throw 1; });
    auto const second = workTask(root, "second", Fails());
    second->scheduleTask();
    root->requestSchedulerRun();
    EXPECT_THROW(doEventLoop(), int);
    root->taskExceptionHandlerIs(nullptr);
    root->requestSchedulerRun();
    EXPECT_THROW(doEventLoop(), std::runtime_error);
    EXPECT_EQ(asked.size(), 1U);
  });
}

class Socket : public Brelo::FileDescriptorTask {
 public:
  using FileDescriptorTask::FileDescriptorTask;
  void taskExecuteReadable() override { readable(); }
  void taskExecuteWritable() override { writable(); }

  std::function<void()> readable = [] {};
  std::function<void()> writable = [] {};
};

TEST_P(TaskException, ADescriptorTaskGoesOnAndMayEndWhileItIsAskedFor) {
  run([this] {
    auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
    SocketPair pair;
    auto socket = std::make_shared<Socket>(root, TaskPriority::normal, "socket");
    socket->taskWatchFdIs(pair.near());
    int reads = 0;
    int writes = 0;
    socket->readable = [&] {
      char byte;
      EXPECT_EQ(read(pair.near(), &byte, 1), 1);
      ++reads;
      throw std::runtime_error("read");
    };
    socket->writable = [&] {
      if (++writes < 3) socket->taskWatchWritableIs(true);
      throw std::runtime_error("write");
    };
    askFor(*root, true);
    pair.send();
    pair.send();
    pair.send();
    socket->taskWatchWritableIs(true);
    EXPECT_TRUE(runUntil([&] { return reads == 3 && writes == 3; }));
    EXPECT_EQ(asked.size(), 6U);
    EXPECT_EQ(asked[0].substr(0, 8), "socket: ");

    // The last owner lets go: in the handler, and in the run before it throws.
    root->taskExceptionHandlerIs([&](Brelo::_TaskBase& task) {
      EXPECT_EQ(task.taskName(), "socket");
      socket.reset();
      EXPECT_EQ(task.taskName(), "socket");
      return true;
    });
    std::weak_ptr<Socket> const alive = socket;
    pair.send();
    EXPECT_TRUE(runUntil([&] { return alive.expired(); }));

    askFor(*root, true);
    asked.clear();
    socket = std::make_shared<Socket>(root, TaskPriority::normal, "socket");
    socket->readable = [&] {
      socket.reset();
      throw std::runtime_error("last");
    };
    socket->taskWatchFdIs(pair.near());
    pair.send();
    EXPECT_TRUE(runUntil([&] { return !asked.empty(); }));
    EXPECT_EQ(asked[0], "socket:read: last");
  });
}

}  // namespace
