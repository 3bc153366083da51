#include "Brelo/TaskControl.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "Brelo/TaskScheduler.h"
#include "support/Backend.h"
#include "support/Handlers.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using Brelo::TaskPriority;

/// The handlers of the plain controls, on a scheduler.
struct Tasks {
  Tasks() {
    timer.control = getTimerControl(&timer, root, TaskPriority::high, "timer");
    callback.control = getCallbackControl(&callback, root, TaskPriority::normal, "callback");
    watch.control = getFdControl(&watch, root, TaskPriority::low, "watch");
  }
  bool tell(std::string const& all) {
    return runUntil([&] { return told.size() >= all.size(); }) && told == all;
  }

  SocketPair pair;
  std::shared_ptr<Brelo::TaskSchedulerRoot> root = Brelo::schedulerRootBreloNonShared("root");
  Timer timer;
  Callback callback;
  Watch watch{-1, true, false};
  std::string told;
};

class TaskControl : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(TaskControl);

TEST_P(TaskControl, HandlersRunAsTasksInTurnAndMayLetGoOfTheirControl) {
  run([] {
    Tasks tasks;
    auto& [pair, root, timer, callback, watch, told] = tasks;
    timer.action = [&] { told += 't', timer.control.reset(); };
    callback.action = [&] {
      told += callback.control->pendingCallback() ? 'C' : 'c';
      callback.control.reset();
    };
    watch.read.handles = true;
    watch.read.action = watch.write.action = [&] {
      told += told.empty() ? 'w' : 'r';
      if (told.size() > 1) watch.control.reset();
      throw std::runtime_error("which it is asked about even so");
    };
    watch.control->setWrites(true);  // a wish that waits for the descriptor
    watch.control->setFd(pair.near());
    EXPECT_TRUE(tasks.tell("w"));
    EXPECT_EQ(registeredTask(*root, "watch:write")->taskRunCount, 1U);
    callback.control->requestCallback();
    callback.control->requestCallback();
    timer.control->setTimeout(0.0);
    EXPECT_TRUE(callback.control->pendingCallback() && told == "w");
    EXPECT_TRUE(tasks.tell("wtc"));
    pair.send();
    EXPECT_TRUE(tasks.tell("wtcr"));
    EXPECT_TRUE(runUntil([&] { return root->registeredTaskCount() == 0; }));
  });
}

TEST_P(TaskControl, WhatIsTakenBackDoesNotRun) {
  run([] {
    Tasks tasks;
    auto& [pair, root, timer, callback, watch, told] = tasks;
    root->suspendedIs(true);  // what comes queues tasks and no more
    pair.send();
    for (int way : {0, 1, 2}) {
      watch.control->setFd(pair.near());
      EXPECT_TRUE(runUntil([&] { return root->runnableTaskCount() == 1; }));
      if (way == 0) watch.control->setFd(pair.ends[1]);
      if (way == 1) watch.control->delFd();
      if (way == 2) watch.control->clearEvents();
      EXPECT_EQ(watch.control->getFd(), way == 0 ? pair.ends[1] : -1);
      EXPECT_EQ(root->runnableTaskCount(), 0U) << way;
    }
    callback.control->requestCallback();
    callback.control->cancelCallback();
    timer.control->setTimeout(0.0);
    timer.control->setTimeout(1000.0);
    EXPECT_NEAR(timer.control->remainingTimeout(), 1000.0, 1.0);
    timer.control->delTimeout();
    EXPECT_EQ(timer.control->remainingTimeout(), never);
    EXPECT_EQ(root->runnableTaskCount(), 0U);
  });
}

TEST_P(TaskControl, NoHandlerIsAskedAboutTheExceptionOfATimerOrACallback) {
  run([] {
    Tasks tasks;
    auto& [pair, root, timer, callback, watch, told] = tasks;
    timer.handles = callback.handles = true;
    timer.action = callback.action = watch.write.action = [] { throw std::runtime_error("x"); };
    timer.control->setTimeout(0.001);
    callback.control->requestCallback();
    watch.control->setFd(pair.near());
    watch.control->setWrites(true);
    for (int i : {0, 1, 2}) {
      EXPECT_THROW(runUntil([] { return false; }), std::runtime_error) << i;
      root->requestSchedulerRun();
    }
  });
}

}  // namespace
