#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>

#include "support/Backend.h"
#include "support/ChildProcess.h"
#include "support/Handlers.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;

class Fork : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(Fork);

TEST_P(Fork, WhateverTheChildDoesEachOfItsParentsEventsComesOnce) {
  run([] {
    for (std::string const act : {"exits", "deletes", "deletes elsewhere", "adds", "runs"}) {
      SocketPair pair;
      std::string told;
      Timer timer([&] { told += 't'; });
      Callback callback;
      Watch watch(pair.near(), true, false);
      auto const root = Brelo::schedulerRootBreloNonShared("root");
      auto task = std::make_shared<WorkTimer>(root, Brelo::TaskPriority::normal, "task",
                                              [&](WorkTimer&) { told += 'T'; });
      callback.action = [&] { told += 'c'; };
      watch.read.action = [&, byte = char()]() mutable {
        if (read(pair.near(), &byte, 1) == 1) told += byte;
      };
      callback.control->requestCallback();
      timer.control->setTimeout(0.003);
      task->scheduleTaskDelay(0.004);
      auto const expectEach = [&] {
        pair.send();
        EXPECT_TRUE(runUntil([&] { return told.size() > 3; }));
        Brelo::Platform::doEventLoop(0.002);
        std::sort(told.begin(), told.end());
        EXPECT_EQ(told, "Tctx") << act;
      };
      auto const actInChild = [&] {
        EXPECT_TRUE(passesInChild([&] {
          if (act == "exits") _exit(0);
          if (act == "runs") return expectEach();
          if (act == "adds") Watch(pair.near(), true, true).control->setReads(false);
          if (act == "adds") return watch.control->setWrites(true);
          // As `exit()` does to static objects.
          watch.control.reset();
          timer.control.reset();
          callback.control.reset();
          task.reset();
        }));
      };
      act == "deletes elsewhere" ? std::thread(actInChild).join() : actInChild();
      expectEach();
    }
  });
}

}  // namespace
