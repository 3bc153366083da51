// What a StallDetector says of where a run was: the right function, in code that may hold any lock.
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

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
StallDetectorOptions tellsAll(std::chrono::nanoseconds limit) {
  StallDetectorOptions options;
  options.limit = limit;
  options.reportsPerMinuteMax = 1'000'000;
  options.stacksMax = 1;
  return options;
}

TEST_P(StallStackSuite, TellsTheFunctionThatHeldTheLoop) {
  run([] {
    if (signalsComeLate) return;
    constexpr int half = 25;
    constexpr int rounds = 20;
    auto const functions = stallStack::functions(std::make_index_sequence<half>());
    auto const root = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
    StallDetector detector(root, tellsAll(1ms));
    std::size_t next = 0;
    int right = 0;
    auto length = 2ms;
    auto const task = workTask(root, "stalls", [&](WorkTask&) { functions[next](length); });
    detector.onStall([&](Stall const& stall) {
      if (stall.name != "stalls") return;  // in a busy machine even the telling is caught
      std::string const number = std::to_string(next % half);
      bool const spun = next < half;
      EXPECT_EQ(ownFunctions(stall), (spun ? "spins<" : "blocks<") + number + "> ");
      EXPECT_GE(stall.length, 1ms);
      EXPECT_LE(stall.cpu, spun ? stall.length + 1ms : stall.length / 2 + 500us);
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

}  // namespace
