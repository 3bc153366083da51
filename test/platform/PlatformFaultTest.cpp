#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

#include "Brelo/Platform.h"
#include "support/Backend.h"
#include "support/ChildProcess.h"
#include "support/FaultInjection.h"
#include "support/Handlers.h"

// What the platform does when the kernel or memory refuses.

namespace {

/// How often the kernel has been asked by `epoll_wait`, and what that answers if not 0.
int waits = 0;
int waitError = 0;

}  // namespace

extern "C" int epoll_wait(int set, epoll_event* events, int most, int timeout) {
  ++waits;
  if (waitError != 0) return errno = waitError, -1;
  return epoll_pwait(set, events, most, timeout, nullptr);
}

namespace {

using namespace BreloTest;
using Brelo::Platform::doEventLoop;

class PlatformFault : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(PlatformFault);

TEST_P(PlatformFault, WhatTheKernelRefusesToWatchIsOffAndTheRestStays) {
  run([] {
    SocketPair pair;
    Watch watch(pair.near(), true, false);
    auto const refused = [&](std::vector<int> results, auto change) {
      FaultInjection const refusal({{"epoll_ctl", std::move(results)}});
      EXPECT_THROW(change(), std::system_error);
    };
    auto const reads = [&] {
      watch.read.runs = 0;
      return runUntil([&] { return watch.read.runs > 0; });
    };
    for (int const error : {ENOMEM, ENOSPC, EINVAL}) {
      pair.send();
      refused({error}, [&] { watch.control->setWrites(true); });
      EXPECT_TRUE(reads());
      EXPECT_EQ(watch.write.runs, 0);
      watch.control->setReads(false);
      doEventLoop();
      refused({error}, [&] { watch.control->setReads(true); });
      doEventLoop();  // nothing to wait for
      watch.control->delFd();
      watch.control->setReads(true);
      refused({error}, [&] { watch.control->setFd(pair.near()); });
      EXPECT_EQ(watch.control->getFd(), -1);
      watch.control->setFd(pair.near());
      EXPECT_TRUE(reads());
    }
    watch.control->setWrites(true);
    EXPECT_TRUE(runUntil([&] { return watch.write.runs == 1; }));
  });
}

TEST_P(PlatformFault, WhatCannotBePolledIsTriedOnce) {
  run([] {
    Watch watch(-1, false, false);
    std::size_t const enough = 100;
    FaultInjection const counting({{"epoll_ctl", std::vector<int>(enough, 0)}});
    for (int const file : {open("/proc/self/exe", O_RDONLY), open("/proc/self/exe", O_RDONLY)}) {
      watch.control->setFd(file);
      for (int write = 1; write <= 10; ++write) {
        watch.write.runs = 0;
        watch.control->setWrites(true);
        doEventLoop();
        EXPECT_EQ(watch.write.runs, 1);
      }
    }
    EXPECT_EQ(enough - counting.left().at("epoll_ctl").size(), 2U);
    SocketPair pair;
    watch.control->setFd(pair.near());
    watch.control->setReads(true);
    pair.send();
    EXPECT_TRUE(runUntil([&] { return watch.read.runs > 0; }));
  });
}

TEST_P(PlatformFault, AWaitThatFailsLeavesTheLoop) {
  run([] {
    SocketPair pair;
    Watch const watch(pair.near(), true, false);
    Timer timer;
    timer.control->setTimeout(0.001);
    waitError = EINVAL;
    FaultInjection const byMilliseconds({{"epoll_pwait2", {ENOSYS}}});
    EXPECT_THROW(doEventLoop(), std::system_error);
    waitError = 0;
    EXPECT_TRUE(runUntil([&] { return timer.runs == 1; }));
  });
}

TEST(HostWait, OfMillisecondsIsRoundedUp) {
  for (int const error : {ENOSYS, EPERM}) {
    EXPECT_TRUE(passesInChild([error] {
      FaultInjection const byMilliseconds({{"epoll_pwait2", {error}}});
      SocketPair pair;
      Watch watch(pair.near(), true, false);
      double due = 0;
      Timer timer([&] { EXPECT_GE(Brelo::time(), due); });
      for (double const seconds : {0.0002, 0.0015, 0.0029}) {
        due = Brelo::time() + seconds;
        timer.control->setTimeout(seconds);
        timer.runs = waits = 0;
        doEventLoop(0.02);
        EXPECT_EQ(timer.runs, 1);
        EXPECT_TRUE(waits >= 2 && waits < 6) << waits;
      }
    }));
  }
}

TEST(HostWatch, IsUnboundWhereMemoryRunsOut) {
  SocketPair pair;
  int const number = 900;
  EXPECT_EQ(dup2(pair.near(), number), number);
  pair.send();
  bool failed = true;
  for (std::size_t before = 0; failed; ++before) {
    Watch watch(-1, true, false);
    std::vector<int> results(before, 0);
    results.push_back(ENOMEM);
    try {
      FaultInjection const failure({{"new", std::move(results)}});
      watch.control->setFd(number);
      failed = false;
    } catch (std::bad_alloc const&) {
      EXPECT_EQ(watch.control->getFd(), -1);
    }
    if (failed) continue;
    EXPECT_GT(before, 1U);
    EXPECT_TRUE(runUntil([&] { return watch.read.runs > 0; }));
  }
}

}  // namespace
