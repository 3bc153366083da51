#include "BreloDaemon/SignalTask.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "Brelo/TaskSchedulerRoot.h"
#include "support/Backend.h"
#include "support/ChildProcess.h"
#include "support/Handlers.h"
#include "support/WorkTasks.h"

namespace BreloDaemon {
namespace {

using namespace BreloTest;

bool isBlocked(int signal) {
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  return sigismember(&mask, signal) == 1;
}

class SignalTaskTest : public OnBothBackends {
 protected:
  template <class Body>
  void runWith(Body body) {
    run([&] { body(Brelo::schedulerRootBreloNonShared("root")); });
  }
  static auto make(std::shared_ptr<Brelo::TaskScheduler> const& root,
                   std::initializer_list<int> signals, SignalTask::Handler handler) {
    return std::make_unique<SignalTask>(root, Brelo::TaskPriority::high, "signals", signals,
                                        std::move(handler));
  }
  static void raiseHere(int signal) { pthread_kill(pthread_self(), signal); }
};
INSTANTIATE_BOTH_BACKENDS(SignalTaskTest);

TEST_P(SignalTaskTest, EachSignalIsARunUntilItsHandlerEndsIt) {
  runWith([](auto const& root) {
    std::string got;
    std::unique_ptr<SignalTask> task;
    task = make(root, {SIGUSR1, SIGUSR2, SIGRTMIN}, [&](signalfd_siginfo const& signal) {
      EXPECT_EQ(signal.ssi_pid, static_cast<unsigned>(getpid()));
      got += std::to_string(signal.ssi_signo == static_cast<unsigned>(SIGRTMIN)
                                ? 100 + signal.ssi_int
                                : static_cast<int>(signal.ssi_signo)) +
             ' ';
      if (signal.ssi_signo == SIGUSR2) {
        raiseHere(SIGUSR1);  // would end the process if it were let through
        task.reset();
        throw std::runtime_error("the last");
      }
      if (signal.ssi_int == 2) throw std::runtime_error("one of them");
    });
    raiseHere(SIGUSR1);
    raiseHere(SIGUSR1);  // is the same one
    EXPECT_TRUE(runUntil([&] { return !got.empty(); }));
    sigval value{};
    for (value.sival_int = 1; value.sival_int <= 3; ++value.sival_int)
      pthread_sigqueue(pthread_self(), SIGRTMIN, value);
    EXPECT_THROW(Brelo::Platform::doEventLoop(), std::runtime_error);
    root->requestSchedulerRun();
    EXPECT_TRUE(runUntil([&] { return got == "10 101 102 103 "; }));
    raiseHere(SIGUSR2);
    EXPECT_THROW(Brelo::Platform::doEventLoop(), std::runtime_error);
    root->requestSchedulerRun();
    Brelo::Platform::doEventLoop();
    EXPECT_EQ(got, "10 101 102 103 12 ");
    EXPECT_FALSE(isBlocked(SIGUSR1) || isBlocked(SIGUSR2) || isBlocked(SIGRTMIN));
  });
}

TEST_P(SignalTaskTest, EndsWithASignalThatWaitsForItsRun) {
  runWith([](auto const& root) {
    bool told = false;
    auto task = make(root, {SIGUSR1}, [&](auto&) { told = true; });
    auto const queued = registeredTask(*root, "signals");
    root->suspendedIs(true);
    raiseHere(SIGUSR1);
    EXPECT_TRUE(runUntil([&] { return queued->onRunQueue(); }));
    task.reset();
    EXPECT_FALSE(queued->onRunQueue());
    root->suspendedIs(false);
    Brelo::Platform::doEventLoop();
    EXPECT_FALSE(told);
  });
}

TEST_P(SignalTaskTest, TheMaskIsThatOfWhoStillWantsIt) {
  runWith([&](auto const& root) {
    sigset_t before;
    sigemptyset(&before);
    sigaddset(&before, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &before, nullptr);
    auto first = make(root, {SIGHUP, SIGUSR1}, [](auto&) {});
    auto second = make(root, {SIGUSR1, SIGUSR2}, [](auto&) {});
    first.reset();
    EXPECT_TRUE(isBlocked(SIGHUP) && isBlocked(SIGUSR1) && isBlocked(SIGUSR2));
    std::thread([&] { EXPECT_TRUE(isBlocked(SIGUSR2)); }).join();
    auto const inChild = [&] {
      EXPECT_TRUE(passesInChild([&] {
        EXPECT_TRUE(isBlocked(SIGHUP) && !isBlocked(SIGUSR1) && !isBlocked(SIGUSR2));
        auto const own = make(root, {SIGUSR1}, [](auto&) {});
        EXPECT_TRUE(isBlocked(SIGUSR1));
      }));
    };
    inChild();
    std::thread(inChild).join();
    EXPECT_TRUE(isBlocked(SIGUSR1) && isBlocked(SIGUSR2));
    second.reset();
    EXPECT_TRUE(isBlocked(SIGHUP) && !isBlocked(SIGUSR1) && !isBlocked(SIGUSR2));
  });
}

}  // namespace
}  // namespace BreloDaemon
