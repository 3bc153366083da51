// What the parts of the kit that stand between a daemon and the rest of the system do at its
// orderly end.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "BreloDaemon/ChildTask.h"
#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/FunctionTask.h"
#include "BreloDaemon/Mailbox.h"
#include "BreloDaemon/SignalTask.h"
#include "BreloDaemon/WorkerPool.h"
#include "support/Backend.h"

namespace BreloDaemon {
namespace {

using namespace std::chrono_literals;
using Brelo::TaskPriority;

class OrderlyEnd : public BreloTest::OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(OrderlyEnd);

TEST_P(OrderlyEnd, WhatHasBegunIsFinishedAndNothingIsTakenAnyMore) {
  run([] {
    Daemon daemon("test");
    std::string said;
    SignalTask signals(daemon.scheduler(), TaskPriority::high, "signals", {SIGUSR1},
                       [&](auto&) { said += 's'; });
    Mailbox mailbox(daemon.scheduler(), TaskPriority::low, "mail");
    auto const sender = mailbox.sender();
    WorkerPool pool(daemon.scheduler(), TaskPriority::normal, "pool", 1, 4);
    ChildProgram program;
    program.path = "sleep";
    program.pathSearched = true;
    program.arguments = {"100"};
    ChildTask const child(daemon.scheduler(), TaskPriority::normal, "child", std::move(program),
                          [&](ChildEnd const& end) {
                            EXPECT_EQ(toString(end), "killed by signal 15 (Terminated)");
                            said += 'c';
                          });
    FunctionTask begin(daemon.scheduler(), TaskPriority::normal, "begin", [&] {
      daemon.stop();
      for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(pool.submit([] { std::this_thread::sleep_for(1ms); },
                                [&](auto&&) {
                                  said += 'w';
                                  EXPECT_FALSE(pool.submit([] {}, [](auto&&) {}));
                                  EXPECT_TRUE(sender.post([&] { said += 'p'; }));
                                }));
      }
      EXPECT_TRUE(sender.post([&] {
        said += 'l';
        EXPECT_TRUE(daemon.stopping());
      }));
    });
    begin.schedule();
    EXPECT_EQ(daemon.run(), 0);
    std::sort(said.begin(), said.end());
    EXPECT_EQ(said, "clpppwww");
    EXPECT_FALSE(sender.post([] {}));
    EXPECT_FALSE(pool.submit([] {}, [](auto&&) {}));
    raise(SIGUSR1);  // comes too late, and ends nobody
  });
}

}  // namespace
}  // namespace BreloDaemon
