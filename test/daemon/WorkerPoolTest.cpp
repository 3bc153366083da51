#include "BreloDaemon/WorkerPool.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/Thread.h"
#include "support/Backend.h"
#include "support/ChildProcess.h"
#include "support/Handlers.h"
#include "support/WorkTasks.h"

namespace BreloDaemon {
namespace {

using namespace BreloTest;

class WorkerPoolTest : public OnBothBackends {
 protected:
  template <class Body>
  void runWith(unsigned threads, std::size_t queueMax, Body body) {
    run([&] {
      auto const root = Brelo::schedulerRootBreloNonShared("root");
      std::optional<WorkerPool> pool(std::in_place, root, Brelo::TaskPriority::normal,
                                     "a pool of a long name", threads, queueMax);
      body(*root, pool);
    });
  }
};
INSTANTIATE_BOTH_BACKENDS(WorkerPoolTest);

TEST_P(WorkerPoolTest, HandsOverWhatComesOfEachPieceOfWorkOnce) {
  runWith(3, 100, [](auto& root, auto& pool) {
    auto const loop = std::this_thread::get_id();
    std::minstd_rand random(5);
    int submitted = 0, results = 0, failures = 0;
    auto const done = [&](int i) {
      return [&, i](Outcome<std::unique_ptr<int>>&& outcome) {
        EXPECT_EQ(std::this_thread::get_id(), loop);
        if (i % 5 == 0) {
          EXPECT_THROW(outcome.get(), std::runtime_error);
          ++failures;
        } else {
          EXPECT_EQ(*outcome.get(), i);
          ++results;
        }
      };
    };
    auto const work = [&](int i) {
      return [=, pause = random() % 30] {
        EXPECT_NE(std::this_thread::get_id(), loop);
        EXPECT_STREQ(Brelo::threadName(), "a pool of a lon");
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        EXPECT_TRUE(sigismember(&blocked, SIGTERM) && sigismember(&blocked, SIGCHLD));
        std::this_thread::sleep_for(std::chrono::microseconds(pause));
        if (i % 5 == 0) throw std::runtime_error("work");
        return std::make_unique<int>(i);
      };
    };
    while (submitted < 500) {
      if (pool->submit(work(submitted), done(submitted))) {
        ++submitted;
      } else {
        Brelo::Platform::doEventLoop(0.0002);
      }
    }
    EXPECT_TRUE(runUntil([&] { return results + failures == submitted; }));
    bool empty = false;
    EXPECT_TRUE(pool->submit([] {}, [&](Outcome<void>&& outcome) { outcome.get(), empty = true; }));
    EXPECT_TRUE(runUntil([&] { return empty; }));
    EXPECT_EQ(failures, 100);
    auto const stat = registeredTask(root, "a pool of a long name")->getStats();
    EXPECT_EQ(stat.taskWorkCountTotal, 501);
  });
}

TEST_P(WorkerPoolTest, TakesAsMuchAsItHasRoomFor) {
  runWith(2, 3, [](auto&, auto& pool) {
    std::promise<void> gate;
    auto const wait = [open = gate.get_future().share()] { open.wait(); };
    int done = 0;
    auto const count = [&](auto&&) { ++done; };
    for (int i = 0; i < 5; ++i)
      EXPECT_TRUE(pool->submit(wait, count));
    EXPECT_FALSE(pool->submit(wait, count));
    EXPECT_TRUE(runUntil([&] { return pool->waiting() == 3; }));
    gate.set_value();
    EXPECT_TRUE(runUntil([&] { return done == 5; }));
    EXPECT_TRUE(pool->submit([] { return 1; }, [&](auto&& one) { done += one.get(); }));
    EXPECT_TRUE(runUntil([&] { return done == 6; }));
  });
}

TEST_P(WorkerPoolTest, WithoutABoundTakesWorkUntilItsEndAndNoneMeanwhile) {
  struct SubmitsAtItsEnd {
    explicit SubmitsAtItsEnd(std::function<void()> last) : submit(std::move(last)) {}
    SubmitsAtItsEnd(SubmitsAtItsEnd&& other) noexcept
        : submit(std::exchange(other.submit, nullptr)) {}
    ~SubmitsAtItsEnd() {
      if (submit) submit();
    }
    void operator()() const {}

    std::function<void()> submit;
  };
  runWith(1, std::numeric_limits<std::size_t>::max(), [](auto&, auto& pool) {
    std::promise<void> begun;
    bool taken = true;
    EXPECT_TRUE(pool->submit(
        [&] {
          begun.set_value();
          std::this_thread::sleep_for(std::chrono::milliseconds(10));
        },
        [](auto&&) {}));
    SubmitsAtItsEnd submits([&, to = &*pool] { taken = to->submit([] {}, [](auto&&) {}); });
    EXPECT_TRUE(pool->submit(std::move(submits), [](auto&&) {}));
    begun.get_future().wait();
    pool.reset();
    EXPECT_FALSE(taken);
  });
}

TEST_P(WorkerPoolTest, EndsInOrder) {
  // While work waits, while it is done, and from inside a `done` that then throws.
  for (bool const inside : {false, true}) {
    runWith(1, 10, [&](auto& root, auto& pool) {
      std::atomic<int> begun{0};
      auto const token = std::make_shared<int>();
      auto const work = [&begun, token] {
        ++begun;
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
      };
      int done = 0;
      pool->submit(work, [&, token](auto&&) {
        ++done;
        if (!inside) return;
        pool.reset();
        throw std::runtime_error("done");
      });
      for (int i = 0; i < 9; ++i)
        EXPECT_TRUE(pool->submit(work, [&, token](auto&&) { ++done; }));
      if (inside) {
        EXPECT_THROW(Brelo::Platform::doEventLoop(), std::runtime_error);
        root.requestSchedulerRun();
      } else {
        EXPECT_TRUE(runUntil([&] { return begun > 1; }));
        pool.reset();
      }
      EXPECT_LT(begun, 9);
      EXPECT_LE(done, begun);
      Brelo::Platform::doEventLoop();
      EXPECT_EQ(token.use_count(), 2);  // and that of `work`
    });
  }
}

TEST_P(WorkerPoolTest, AForkedChildTakesNoWorkAndEnds) {
  runWith(2, 2, [](auto&, auto& pool) {
    bool done = false;
    auto const note = [&](auto&&) { done = true; };
    EXPECT_TRUE(pool->submit([] {}, note));
    EXPECT_TRUE(runUntil([&] { return done; }));
    EXPECT_TRUE(
        pool->submit([] { std::this_thread::sleep_for(std::chrono::milliseconds(2)); }, note));
    EXPECT_TRUE(passesInChild([&] {
      EXPECT_FALSE(pool->submit([] {}, note));
      pool.reset();
      Brelo::Platform::doEventLoop();
    }));
  });
}

}  // namespace
}  // namespace BreloDaemon
