// What a StallDetector says of where a run was: the right function, in code that may hold any lock.
#include <dlfcn.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "Brelo/Backtrace.h"
#include "Brelo/Platform.h"
#include "BreloObserve/StallDetector.h"
#include "support/Backend.h"
#include "support/WorkTasks.h"

// Exported, so that they have names.
namespace stallStack {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

static timespec timespecOf(nanoseconds time) {
  return {time.count() / 1'000'000'000, time.count() % 1'000'000'000};
}

/// A function of its own for each number, which no other may be folded into.
template <int N>
[[gnu::noinline]] void spins(nanoseconds length) {
  auto const end = steady_clock::now() + length;
  while (steady_clock::now() < end)
    __asm__ volatile("" ::"i"(N));
}

template <int N>
[[gnu::noinline]] void blocks(nanoseconds length) {
  timespec const end = timespecOf(steady_clock::now().time_since_epoch() + length);
  if constexpr (N % 3 == 0) {
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
  } else if constexpr (N % 3 == 1) {
    int const timer = timerfd_create(CLOCK_MONOTONIC, 0);
    itimerspec const once{{}, end};
    timerfd_settime(timer, TFD_TIMER_ABSTIME, &once, nullptr);
    std::uint64_t expiries = 0;
    EXPECT_EQ(read(timer, &expiries, sizeof expiries), 8) << "is started again after the signal";
    close(timer);
  } else {
    int word = 0;
    while (syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, 0, &end, nullptr, ~0U) == -1 &&
           errno == EINTR) {
    }
  }
  __asm__ volatile("" ::"i"(N));
}

template <class Step>
void repeats(nanoseconds length, Step step) {
  auto const end = steady_clock::now() + length;
  while (steady_clock::now() < end)
    step();
}

// Code that holds locks of the C library, of the dynamic linker and of the unwinders.
/// @{
[[gnu::noinline]] void allocates(nanoseconds length) {
  std::size_t size = 1;
  repeats(length, [&] {
    void* volatile block = std::malloc(size = size * 3 % 100'003);
    std::free(block);
  });
}

[[gnu::noinline]] void listsModules(nanoseconds length) {
  auto const visit = [](dl_phdr_info*, std::size_t, void*) { return 0; };
  repeats(length, [&] { dl_iterate_phdr(visit, nullptr); });
}

[[gnu::noinline]] void loadsModules(nanoseconds length) {
  repeats(length, [] { dlclose(dlopen("libanl.so.1", RTLD_NOW)); });
}

[[gnu::noinline]] void throws(nanoseconds length) {
  repeats(length, [] {
    try {
      throw std::runtime_error("thrown");
    } catch (std::exception const&) {
    }
  });
}

[[gnu::noinline]] void walks(nanoseconds length) {
  repeats(length, [] { Brelo::Backtrace(true).pretty(); });
}
/// @}

template <std::size_t... N>
auto functions(std::index_sequence<N...>) {
  return std::array<void (*)(nanoseconds), 2 * sizeof...(N)>{&spins<N>..., &blocks<N>...};
}

}  // namespace stallStack

namespace {

using namespace BreloTest;
using namespace std::chrono_literals;
using Brelo::Platform::doEventLoop;
using BreloObserve::Stall;
using BreloObserve::StallDetector;
using BreloObserve::StallDetectorOptions;
using stallStack::steady_clock;

class StallStackSuite : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(StallStackSuite);

#ifdef __SANITIZE_THREAD__
constexpr bool signalsComeLate = true;  // the sanitizer keeps them until the next call of its own
#else
constexpr bool signalsComeLate = false;
#endif

/// The functions of a stall that are this file's own, innermost first, each with a blank behind it.
std::string ownFunctions(Stall const& stall) {
  std::string names;
  for (auto const& frame : stall.frames) {
    auto const at = frame.function.find("stallStack::");
    if (at == std::string::npos) continue;
    std::string const name = frame.function.substr(at + 12);
    names += name.substr(0, name.find('(')) + " ";
  }
  return names;
}

/// Every call is another stack to it, and told of.
StallDetectorOptions tellsAll(std::chrono::nanoseconds shortest) {
  StallDetectorOptions options;
  options.limit = shortest;
  options.reportsPerMinuteMax = 1'000'000;
  options.stacksMax = 1;
  return options;
}

TEST_P(StallStackSuite, TellsTheFunctionThatHeldTheLoop) {
  run([] {
    if (signalsComeLate) return;
    constexpr int half = 25;
    constexpr int rounds = 20;
    auto const all = stallStack::functions(std::make_index_sequence<half>());
    auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
    StallDetector detector(root, tellsAll(1ms));
    std::size_t next = 0;
    int right = 0;
    auto length = 2ms;
    auto const task = workTask(root, "stalls", [&](WorkTask&) { all[next](length); });
    detector.onStall([&](Stall const& stall) {
      std::string const functions = ownFunctions(stall);
      // A busy machine stops the loop's thread elsewhere as well.
      if (functions.empty()) return;
      EXPECT_EQ(functions,
                (next < half ? "spins<" : "blocks<") + std::to_string(next % half) + "> ");
      EXPECT_EQ(stall.name, "stalls");
      ++right;
    });
    for (int i = 0; i < rounds * 2 * half; ++i) {
      next = static_cast<std::size_t>(i % (2 * half));
      // The machine may not let the watcher run in time.
      for (length = 2ms; right == i && length < 2s; length *= 2) {
        task->scheduleTask();
        doEventLoop();
      }
      ASSERT_EQ(right, i + 1);
    }
  });
}

/// The detector's thread, a thread that works with the same locks, and the handler amid them.
TEST_P(StallStackSuite, LocksThatTheRunHoldsAreNotTaken) {
  run([] {
    for (auto const& function :
         {&stallStack::allocates, &stallStack::listsModules, &stallStack::loadsModules,
          &stallStack::throws, &stallStack::walks}) {
      auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
      std::atomic<bool> ended{false};
      std::thread other([&] {
        while (!ended)
          function(100us);
      });
      {
        StallDetector detector(root, tellsAll(1ms));
        auto const task = workTask(root, "stalls", [&](WorkTask&) { function(2ms); });
        for (int i = 0; i < 40; ++i) {
          task->scheduleTask();
          doEventLoop();
        }
        EXPECT_GE(detector.caught(), 20U);
      }
      ended = true;
      other.join();
    }
  });
}

/// Holds what the linker's own questions wait for, until the watcher has told of it.
[[gnu::noinline]] int waitsInLoader(dl_phdr_info*, std::size_t, void* pipe) {
  std::string text;
  char piece[4096];
  while (text.find("waitsInLoader") == std::string::npos) {
    ssize_t const length = read(static_cast<int*>(pipe)[0], piece, sizeof piece);
    if (length > 0) text.append(piece, static_cast<std::size_t>(length));
  }
  EXPECT_THAT(text, testing::StartsWith("StallDetector: stalls of root has held the loop for 0.0"));
  return 1;
}

TEST_P(StallStackSuite, RunThatDoesNotEndIsToldOfOnStandardError) {
  run([] {
    if (signalsComeLate) return;
    auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
    int pipes[2];
    ASSERT_EQ(pipe2(pipes, O_CLOEXEC), 0);
    int const standardError = dup(STDERR_FILENO);
    dup2(pipes[1], STDERR_FILENO);
    StallDetectorOptions options;
    options.limit = 5ms;
    options.lasting = 20ms;
    StallDetector const detector(root, options);
    auto const task =
        workTask(root, "stalls", [&](WorkTask&) { dl_iterate_phdr(&waitsInLoader, pipes); });
    task->scheduleTask();
    doEventLoop();
    dup2(standardError, STDERR_FILENO);
    for (int const fd : {standardError, pipes[0], pipes[1]})
      close(fd);
    EXPECT_EQ(detector.caught(), 1U);
  });
}

TEST(StallStack, OffsetsLeadToTheirLines) {
  if (signalsComeLate) return;
  auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
  StallDetector detector(root, tellsAll(1ms));
  std::string command;
  detector.onStall([&](Stall const& stall) {
    for (auto const& frame : stall.frames) {
      if (frame.function.find("::spins<3>") == std::string::npos) continue;
      command = fmt::format("addr2line -Cfe {} {:#x}", frame.module, frame.offset);
    }
  });
  auto const task = workTask(root, "stalls", [&](WorkTask&) { stallStack::spins<3>(5ms); });
  for (int i = 0; i < 20 && command.empty(); ++i) {
    task->scheduleTask();
    doEventLoop();
  }
  FILE* const lines = popen(command.c_str(), "r");
  char text[1000] = {};
  EXPECT_GT(std::fread(text, 1, sizeof text - 1, lines), 0U);
  EXPECT_EQ(pclose(lines), 0);
  EXPECT_THAT(text,
              testing::ContainsRegex("(spins<3>|chrono)[^\n]*\n.*(StallStackTest.cpp|chrono)"));
}

}  // namespace
