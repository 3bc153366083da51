// When a StallDetector catches a run, whom it tells, and that it comes and goes as it likes.
#include "BreloObserve/StallDetector.h"

#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TaskGroup.h"
#include "support/Backend.h"
#include "support/FailingMemory.h"
#include "support/TraceCapture.h"
#include "support/WorkTasks.h"

namespace {

using namespace BreloTest;
using namespace std::chrono_literals;
using Brelo::Platform::doEventLoop;
using BreloObserve::Stall;
using BreloObserve::StallDetector;
using BreloObserve::StallDetectorOptions;
using nlohmann::json;
using std::chrono::steady_clock;

class StallDetectorSuite : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(StallDetectorSuite);

constexpr auto limit = 20ms;
constexpr auto stallLength = 3 * limit;

StallDetectorOptions options() {
  StallDetectorOptions values;
  values.limit = limit;
  return values;
}

void holdLoop(std::chrono::nanoseconds length = stallLength) {
  std::this_thread::sleep_for(length);
}

/// Uses so much of the thread's CPU time.
void useProcessor(std::chrono::nanoseconds length) {
  auto const used = [] {
    timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  };
  for (auto const end = used() + length; used() < end;) {
  }
}

auto newRoot() {
  return Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
}

/// Runs `work` in a task of that name until nothing is left to run.
void runTask(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, std::string const& name,
             WorkTask::Work work) {
  auto const task = workTask(scheduler, name, std::move(work));
  task->scheduleTask();
  doEventLoop();
}

json parsed(StallDetector const& detector) {
  return json::parse(detector.document());
}

TEST_P(StallDetectorSuite, TellsOfEachStackOnceAndCountsTheOthers) {
  run([] {
    TraceCapture traced("BreloObserve");
    auto const root = newRoot();
    StallDetectorOptions few = options();
    few.stacksMax = 2;
    few.reportsPerMinuteMax = 2;
    StallDetector detector(root, few);
    std::vector<Stall> told;
    detector.onStall([&](Stall const& stall) { told.push_back(stall); });
    auto const start = steady_clock::now();
    json amid;
    for (char const* name : {"a", "a", "b", "a", "c"}) {
      runTask(root, name, [&](WorkTask&) {
        holdLoop();
        amid = parsed(detector);
        if (told.empty()) {
          EXPECT_EQ(traced.take(), "") << "told of at the end";
        }
      });
      runTask(root, "short", [](WorkTask&) {});
    }
    EXPECT_EQ(amid["stalls"][0]["lasting"], true);
    EXPECT_EQ(amid["stalls"][0]["name"], "c");
    EXPECT_EQ(amid["caught"], 5);

    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[0].group + "/" + told[0].name + "," + told[1].name, "root/a,b");
    EXPECT_GE(told[0].started, start);
    EXPECT_GE(told[0].length, stallLength);
    EXPECT_LT(told[0].cpu, told[0].length / 2) << "it was blocked";
    EXPECT_GT(told[0].frames.size(), 10U);
    EXPECT_NE(told[0].frames.back().address, UINTPTR_MAX) << "what lies beyond the outermost call";
    EXPECT_THAT(traced.take(), testing::MatchesRegex(
                                   "BreloObserve/1 StallDetector::.* a of root held the loop for "
                                   "0.0.*\n    0x.*b of root held.*"));

    json const document = parsed(detector);
    EXPECT_EQ(document["document"], "stalls");
    EXPECT_EQ(document["limit_s"], 0.02);
    EXPECT_EQ(document["caught"], 5);
    EXPECT_EQ(document["suppressed"], 1);
    json const stalls = document["stalls"];
    ASSERT_EQ(stalls.size(), 2U) << "the oldest is given up";
    EXPECT_EQ(stalls[0]["name"], "c");
    EXPECT_EQ(stalls[1]["name"], "a");
    EXPECT_EQ(stalls[1]["count"], 3);
    EXPECT_EQ(stalls[1]["lasting"], false);
    EXPECT_GE(stalls[1]["longest_s"], stalls[1]["last_s"]);
    EXPECT_GT(stalls[1]["last_unix_s"], stalls[1]["first_unix_s"]);
    EXPECT_THAT(std::string(stalls[1]["frames"][0]["offset"]), testing::StartsWith("0x"));
  });
}

TEST_P(StallDetectorSuite, BusyRunIsToldFromABlockedOne) {
  run([] {
    auto const root = newRoot();
    StallDetector detector(root, options());
    std::chrono::nanoseconds cpu{};
    detector.onStall([&](Stall const& stall) { cpu = stall.cpu; });
    runTask(root, "busy", [](WorkTask&) { useProcessor(stallLength); });
    EXPECT_GE(cpu, stallLength);
    EXPECT_LE(cpu, stallLength + limit);
    runTask(root, "busy and blocked", [](WorkTask&) {
      useProcessor(limit / 2);
      holdLoop();
      useProcessor(limit / 2);
    });
    EXPECT_GE(cpu, limit);
    EXPECT_LE(cpu, 2 * limit);
  });
}

/// A group's slice, and a run that enters a loop, are not what the runs inside of them are.
TEST_P(StallDetectorSuite, TheInnermostRunIsTheOneThatHolds) {
  run([host = GetParam() == Backend::host] {
    auto const root = newRoot();
    StallDetectorOptions all = options();
    all.reportsPerMinuteMax = 100;
    StallDetector detector(root, all);
    std::string told;
    detector.onStall([&](Stall const& stall) { told += stall.group + "/" + stall.name + " "; });
    auto const group = Brelo::TaskGroup::TaskGroupIs("g", Brelo::TaskPriority::normal, false, root);
    runTask(group, "inner", [](WorkTask& task) {
      task.taskStatsNameIs("statistics");
      holdLoop();
    });
    EXPECT_EQ(told, "g/statistics ");
    if (!host) return;  // libevent does not enter a loop from inside of it

    told.clear();
    auto const nested = workTask(root, "nested", [](WorkTask&) { holdLoop(); });
    runTask(root, "outer", [&](WorkTask&) {
      for (int i = 0; i < 6; ++i) {
        holdLoop(limit / 4);
        nested->scheduleTask();
        root->requestSchedulerRun();
        if (i > 0) nested->work = [](WorkTask&) {};
        doEventLoop(0.001);
      }
      holdLoop();
    });
    EXPECT_EQ(told, "root/nested root/outer ");
  });
}

TEST_P(StallDetectorSuite, EndsWheneverAndWhateverItsCallbackDoes) {
  run([] {
    auto const root = newRoot();
    std::optional<StallDetector> detector(std::in_place, root, options());
    int told = 0;
    detector->onStall([&](Stall const&) {
      ++told;
      throw std::runtime_error("no");
    });
    EXPECT_THROW(runTask(root, "thrown out of", [](WorkTask&) { holdLoop(); }), std::runtime_error);
    root->requestSchedulerRun();
    detector->onStall([&](Stall const& stall) {
      detector.reset();
      told += static_cast<int>(stall.frames.size()) > 5 ? 1 : 0;
    });
    runTask(root, "ended by its callback", [](WorkTask&) { holdLoop(); });
    EXPECT_EQ(told, 2);

    {
      TraceCapture traced("BreloObserve");
      detector.emplace(root, options());
      runTask(root, "ended amid", [&](WorkTask&) {
        holdLoop();
        detector.reset();
        EXPECT_THAT(traced.take(), testing::HasSubstr("ended amid of root held"));
      });
    }
    for (int i = 0; i < 50; ++i) {
      StallDetectorOptions shortest = options();
      shortest.limit = 100us;
      runTask(root, "others", [&](WorkTask&) {
        StallDetector const one(root, shortest);
        StallDetector const other(root, shortest);
        holdLoop(50us * i);
      });
    }
  });
}

TEST_P(StallDetectorSuite, ThreadsHaveTheirOwn) {
  run([backend = GetParam()] {
    auto const watched = [](char const* name) {
      auto const root = newRoot();
      StallDetector detector(root, options());
      for (int i = 0; i < 3; ++i)
        runTask(root, name, [](WorkTask&) { holdLoop(); });
      json const stalls = parsed(detector)["stalls"];
      ASSERT_GE(stalls.size(), 1U);
      EXPECT_EQ(stalls[0]["name"], name);
      for (json const& stall : stalls) {
        if (stall["name"] == "StallDetector") continue;  // what tells of them, where that is slow
        EXPECT_EQ(stall["name"], name);
        EXPECT_EQ(stall["count"], 3);
      }
    };
    std::thread other([&] { onBackend(Backend::libevent, [&] { watched("other"); }); });
    watched("one");
    other.join();
  });
}

/// How often the watcher of this process has slept.
long watcherSleeps() {
  long sleeps = -1;
  DIR* const threads = opendir("/proc/self/task");
  while (dirent const* const entry = readdir(threads)) {
    std::string const folder = std::string("/proc/self/task/") + entry->d_name;
    std::string name;
    std::ifstream(folder + "/comm") >> name;
    if (name != "brelo:stalls") continue;
    std::ifstream status(folder + "/status");
    for (std::string word; status >> word;) {
      if (word == "voluntary_ctxt_switches:") status >> sleeps;
    }
  }
  closedir(threads);
  return sleeps;
}

TEST_P(StallDetectorSuite, AnIdleLoopIsNotWatched) {
  run([] {
    auto const root = newRoot();
    StallDetectorOptions busy = options();
    busy.limit = 1ms;
    StallDetector const detector(root, busy);
    runTask(root, "short", [](WorkTask&) {});
    // Soon it sleeps for good. One that went on looking would do so a hundred times in 50 ms.
    long before = 0;
    for (int tries = 0; tries < 100 && (before == 0 || before != watcherSleeps()); ++tries) {
      before = watcherSleeps();
      std::this_thread::sleep_for(50ms);
    }
    EXPECT_GT(before, 0);
    EXPECT_EQ(watcherSleeps(), before);
    runTask(root, "awake again", [](WorkTask&) { holdLoop(); });
    EXPECT_GE(detector.caught(), 1U);
  });
}

volatile int formerSignals = 0;

TEST(StallDetector, SignalsOfOthersGoToTheirHandler) {
  int const signal = SIGRTMIN + 7;
  struct sigaction former = {};
  former.sa_handler = [](int) { formerSignals = formerSignals + 1; };
  sigaction(signal, &former, nullptr);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  {
    auto const root = newRoot();
    StallDetectorOptions own = options();
    own.signal = signal;
    StallDetector const detector(root, own);
    raise(signal);
    sigval value = {};
    sigqueue(getpid(), signal, value);
    runTask(root, "stalls", [](WorkTask&) { holdLoop(); });
    EXPECT_EQ(formerSignals, 2);
    EXPECT_EQ(detector.caught(), 1U);
  }
  raise(signal);
  EXPECT_EQ(formerSignals, 2) << "is blocked again";
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  EXPECT_EQ(formerSignals, 3);
  EXPECT_EXIT(
      {
        StallDetectorOptions own = options();
        own.signal = SIGRTMIN + 8;
        StallDetector const detector(newRoot(), own);
        raise(own.signal);
      },
      testing::KilledBySignal(SIGRTMIN + 8), "");
  StallDetectorOptions wrong = options();
  wrong.signal = SIGKILL;
  EXPECT_THROW(StallDetector(newRoot(), wrong), std::system_error);
}

TEST(StallDetector, ForkedChildCatchesNothingUntilItHasItsOwn) {
  auto const root = newRoot();
  std::optional<StallDetector> detector(std::in_place, root, options());
  pid_t child = -1;
  runTask(root, "forks", [&](WorkTask&) {
    holdLoop();
    child = fork();
  });
  if (child == 0) {
    runTask(root, "stalls", [](WorkTask&) { holdLoop(); });
    EXPECT_EQ(detector->caught(), 0U);
    detector.emplace(root, options());
    runTask(root, "stalls", [](WorkTask&) { holdLoop(); });
    EXPECT_GE(detector->caught(), 1U) << "on a busy machine its own telling as well";
    detector.reset();
    _exit(HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_GE(detector->caught(), 1U);
}

TEST(StallDetector, AForkAmidTheWorkOfOthersHoldsNobodyUp) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's own allocator does not survive such a fork";
#endif
  std::atomic<bool> done{false};
  std::vector<std::thread> others;
  for (int i = 0; i < 4; ++i) {
    others.emplace_back([&] {
      auto const root = newRoot();
      while (!done)
        StallDetector const comesAndGoes(root, options());
    });
  }
  int held = 0;
  for (int forks = 0; forks < 1000 && held == 0; ++forks) {
    pid_t const child = fork();
    if (child == 0) {
      alarm(5);
      { StallDetector const own(newRoot(), options()); }
      _exit(0);
    }
    EXPECT_EQ(waitpid(child, &held, 0), child);
  }
  EXPECT_EQ(held, 0);
  done = true;
  for (std::thread& other : others)
    other.join();
}

/// The time for which a process stands still is not the run's.
/// Whether a run of half the limit, and stopped in the middle, was caught.
bool caughtWhileStopped() {
  pid_t const child = fork();
  if (child == 0) {
    auto const root = newRoot();
    StallDetector const detector(root, options());
    runTask(root, "stopped", [](WorkTask&) {
      holdLoop(limit / 4);
      raise(SIGSTOP);
      holdLoop(limit / 4);
    });
    _exit(detector.caught() == 0 ? 0 : 1);
  }
  int status = 0;
  EXPECT_TRUE(waitpid(child, &status, WUNTRACED) == child && WIFSTOPPED(status));
  std::this_thread::sleep_for(200ms);
  kill(child, SIGCONT);
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status != 0;
}

// On a busy machine the run may take longer than the limit by itself, but not each time.
TEST(StallDetector, StoppedProcessIsNoStall) {
  bool caught = true;
  for (int tries = 0; caught && tries < 20; ++tries)
    caught = caughtWhileStopped();
  EXPECT_FALSE(caught);
}

TEST(StallDetector, NoMemoryLosesAStallAndNothingElse) {
  for (unsigned long nth = 1; nth < 8; ++nth) {
    auto const root = newRoot();
    StallDetector detector(root, options());
    std::optional<FailingMemory> failing;
    try {
      runTask(root, "stalls", [&](WorkTask&) {
        holdLoop();
        failing.emplace(nth);
      });
    } catch (std::bad_alloc const&) {
      root->requestSchedulerRun();
    }
    failing.reset();
    runTask(root, "stalls", [&](WorkTask&) { holdLoop(); });
    EXPECT_GE(detector.caught(), 1U);
  }
}

}  // namespace
