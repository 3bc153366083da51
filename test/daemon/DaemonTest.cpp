#include "BreloDaemon/Daemon.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloDaemon/Descriptor.h"
#include "BreloDaemon/FunctionTask.h"
#include "BreloDaemon/FunctionTimer.h"
#include "BreloDaemon/StopStep.h"
#include "support/Backend.h"
#include "support/Handlers.h"
#include "support/WorkTasks.h"

namespace BreloDaemon {
namespace {

using namespace std::chrono_literals;
using Brelo::TaskPriority;
using testing::ElementsAre;
using testing::HasSubstr;

class DaemonRun : public BreloTest::OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(DaemonRun);

/// Runs `body` with standard error going into a pipe; what arrived there.
std::string standardErrorOf(std::function<void()> const& body) {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  Descriptor const readEnd(ends[0]);
  Descriptor writeEnd(ends[1]);
  Descriptor const saved(dup(STDERR_FILENO));
  dup2(writeEnd.get(), STDERR_FILENO);
  writeEnd.reset();
  body();
  dup2(saved.get(), STDERR_FILENO);
  std::string text(1 << 17, '\0');
  ssize_t const size = read(readEnd.get(), text.data(), text.size());
  text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return text;
}

TEST_P(DaemonRun, EndsInOrderAtASignal) {
  run([] {
    std::vector<std::string> said;
    auto const say = [&](char const* word) { return [&said, word] { said.push_back(word); }; };
    Daemon daemon("test");
    EXPECT_EQ(daemon.scheduler()->schedulerName(), "test");
    EXPECT_EQ(daemon.name(), "test");
    FunctionTimer ticks(daemon.scheduler(), TaskPriority::normal, "ticks", [] {});
    ticks.every(1h);
    daemon.onStop("first made", say("first"));
    std::optional<StopStep> slow;
    FunctionTimer later(daemon.scheduler(), TaskPriority::normal, "later", [] {});
    FunctionTask ends(daemon.scheduler(), TaskPriority::low, "ends", [&] {
      said.push_back("slow is done");
      slow.reset();
    });
    slow.emplace("slow", say("slow refuses"), [&] {
      said.push_back("slow stops");
      ends.schedule();
    });
    daemon.onStop("throws", [&] {
      said.push_back("throws");
      throw std::runtime_error("from a step");
    });
    daemon.onStop("last made", say("last"));
    FunctionTask signals(daemon.scheduler(), TaskPriority::normal, "signals",
                         [] { raise(SIGTERM); });
    signals.schedule();
    std::string const text = standardErrorOf([&] { EXPECT_EQ(daemon.run(), 0); });
    EXPECT_THAT(
        said, ElementsAre("slow refuses", "last", "throws", "slow stops", "slow is done", "first"));
    EXPECT_EQ(text, "test: task \"test:stop\": from a step\n");
    EXPECT_TRUE(daemon.stopping());
  });
}

TEST_P(DaemonRun, ThatIsNotLetGoOfSaysWhatItIsAndFails) {
  run([] {
    Daemon daemon("test", {{SIGTERM}, 20ms});
    StopStep const step("never done", nullptr, nullptr);
    auto const timer =
        std::make_shared<BreloTest::WorkTimer>(daemon.scheduler(), TaskPriority::normal, "waits");
    timer->scheduleTaskDelay(100.0);
    daemon.stop();
    std::string const text = standardErrorOf([&] { EXPECT_EQ(daemon.run(), 1); });
    EXPECT_THAT(text, HasSubstr("test: the end takes too long\n"
                                "test: step \"never done\" is not done\n"));
    EXPECT_THAT(text, HasSubstr("test: timer \"waits\" in 99."));
  });
  run([] {  // without a step, something else keeps the loop for a while
    Daemon daemon("test", {{SIGTERM}, 900ms});
    auto const timer =
        std::make_shared<BreloTest::WorkTimer>(daemon.scheduler(), TaskPriority::normal, "waits");
    timer->scheduleTaskDelay(0.03);
    daemon.stop(3);
    daemon.stop(2);
    EXPECT_EQ(daemon.run(), 3);
    EXPECT_EQ(timer->taskRunCount, 1U);
  });
  run([] {  // a step that is made when all others are done is taken, too
    Daemon daemon("test");
    std::optional<FunctionTimer> late;
    BreloTest::Timer timer([&] {
      late.emplace(daemon.scheduler(), TaskPriority::normal, "late", [] {});
      late->every(1h);
    });
    timer.control->setTimeout(0.03);
    daemon.stop();
    EXPECT_EQ(daemon.run(), 0);
    ASSERT_TRUE(late.has_value() && !late->armed());
    late->every(1h);
    EXPECT_FALSE(late->armed()) << "what has ended stays so";
  });
  run([] {  // a second signal ends it at once, also when only something else keeps the loop
    Daemon daemon("test");
    BreloTest::Timer timer;
    timer.control->setTimeout(100);
    BreloTest::Timer second([] { raise(SIGTERM); });
    second.control->setTimeout(0.06);
    raise(SIGTERM);
    std::string const text = standardErrorOf([&] { EXPECT_EQ(daemon.run(), 1); });
    EXPECT_THAT(text, HasSubstr("test: timer BreloTest::Timer in 9"));
  });
  run([] {  // a second signal ends it at once
    Daemon daemon("test");
    BreloTest::Timer second([] { raise(SIGINT); });
    StopStep const step("never done", nullptr, [&] { second.control->setTimeout(0.06); });
    raise(SIGTERM);
    double const start = Brelo::time();
    standardErrorOf([&] { EXPECT_EQ(daemon.run(), 1); });
    EXPECT_LT(Brelo::time() - start, 5);
  });
}

TEST_P(DaemonRun, TakesTheSameSignalTwiceForOne) {
  run([] {  // while a step goes on, and again when the steps are done and something keeps the loop
    Daemon daemon("test");
    BreloTest::Timer keeps([] { raise(SIGTERM); });
    std::optional<StopStep> step;
    FunctionTask ends(daemon.scheduler(), TaskPriority::low, "ends", [&] {
      keeps.control->setTimeout(0.001);
      step.reset();
    });
    step.emplace("step", nullptr, [&] {
      raise(SIGTERM);
      ends.schedule();
    });
    raise(SIGTERM);
    EXPECT_EQ(standardErrorOf([&] { EXPECT_EQ(daemon.run(), 0); }), "");
  });
}

TEST_P(DaemonRun, GoesOnAfterExceptionsUntilThereAreTooMany) {
  run([] {
    Daemon daemon("test");
    BreloTest::Timer timer([&] {
      if (timer.runs == 1) {
        timer.control->setTimeout(0.001);
        throw std::runtime_error("from a handler");
      }
      daemon.stop();
    });
    int runs = 0;
    FunctionTask task(daemon.scheduler(), TaskPriority::normal, "fails", [&](auto& self) {
      ++runs < 3 ? self.scheduleTask() : timer.control->setTimeout(0.001);
      if (runs == 2) throw 2;
      throw std::runtime_error("no");
    });
    task.schedule();
    std::string const text = standardErrorOf([&] { EXPECT_EQ(daemon.run(), 0); });
    EXPECT_EQ(text,
              "test: task \"fails\": no\n"
              "test: task \"fails\": an exception of unknown type\n"
              "test: task \"fails\": no\n"
              "test: a handler: from a handler\n");
  });
  run([] {
    Daemon daemon("test");
    FunctionTask task(daemon.scheduler(), TaskPriority::normal, "fails", [](auto& self) {
      self.scheduleTask();
      throw std::runtime_error("always");
    });
    task.schedule();
    daemon.onStop("task", [&] { task.cancel(); });
    standardErrorOf([&] { EXPECT_EQ(daemon.run(), 1); });
  });
  run([] {
    Daemon daemon("test");
    std::string asked;
    daemon.exceptionHandlerIs([&](Brelo::_TaskBase* task) {
      asked = task->taskName();
      return false;
    });
    FunctionTask task(daemon.scheduler(), TaskPriority::normal, "fails",
                      [] { throw std::runtime_error("once"); });
    task.schedule();
    EXPECT_EQ(daemon.run(), 1);
    EXPECT_EQ(asked, "fails");
  });
}

TEST_P(DaemonRun, SignalsAreRunsAndBrokenOutputHoldsNobodyUp) {
  run([] {
    Daemon daemon("test");
    int reloads = 0;
    daemon.onSignal(SIGHUP, [&] {
      if (++reloads == 2) daemon.stop();
      raise(SIGHUP);
    });
    raise(SIGHUP);
    EXPECT_EQ(daemon.run(), 0);
    EXPECT_GE(reloads, 2);
  });
  // A pipe that nobody reads: full, then closed.
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  Descriptor readEnd(ends[0]);
  Descriptor const saved(dup(STDERR_FILENO));
  dup2(ends[1], STDERR_FILENO);
  close(ends[1]);
  run([&] {
    Daemon daemon("test");
    int runs = 0;
    FunctionTimer task(daemon.scheduler(), TaskPriority::normal, "fails", [&](auto&) {
      if (++runs == 60) {
        readEnd.reset();
        std::this_thread::sleep_for(1100ms);  // and the 100 of a second begin anew
      }
      if (runs == 150) daemon.stop();
      throw std::runtime_error(std::string(3000, 'x'));
    });
    task.every(100us);
    EXPECT_EQ(daemon.run(), 0);
    EXPECT_EQ(runs, 150);
  });
  dup2(saved.get(), STDERR_FILENO);
}

TEST_P(DaemonRun, TheServiceManagerHearsOfBeginningLifeAndEnd) {
  sockaddr_un address{AF_UNIX, {}};
  std::string const name = "@brelo-daemon-" + std::to_string(getpid());
  std::copy(name.begin() + 1, name.end(), address.sun_path + 1);
  Descriptor const manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  ASSERT_EQ(bind(manager.get(), reinterpret_cast<sockaddr*>(&address),
                 static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
            0);
  setenv("NOTIFY_SOCKET", name.c_str(), 1);
  setenv("WATCHDOG_USEC", "8000", 1);
  run([] {
    Daemon daemon("test");
    EXPECT_TRUE(daemon.service().active());
    BreloTest::Timer timer([&] { daemon.stop(); });
    timer.control->setTimeout(0.01);
    EXPECT_EQ(daemon.run(), 0);
  });
  std::vector<std::string> heard;
  char text[256];
  for (ssize_t size; (size = recv(manager.get(), text, sizeof text, 0)) > 0;) {
    std::string const message(text, static_cast<std::size_t>(size));
    if (heard.empty() || heard.back() != message) heard.push_back(message);
  }
  EXPECT_THAT(heard, ElementsAre("READY=1", "WATCHDOG=1", "STOPPING=1"));
}

TEST_P(DaemonRun, OptionsLastAndAStopOfOneIsNoneOfTheNext) {
  run([] {
    DaemonOptions options;
    for (int const signal : {SIGUSR1, SIGUSR2})
      options.stopSignals = {signal, SIGINT};
    { Daemon("stopped, and never run", options).stop(); }
    Daemon daemon("test", options);
    EXPECT_DEATH(daemon.onSignal(SIGUSR2, [] {}), "ends the daemon");
    EXPECT_DEATH(Daemon("another"), "another is a second one on its thread");
    bool ran = false;
    FunctionTimer timer(daemon.scheduler(), TaskPriority::normal, "timer", [&] {
      ran = true;
      raise(SIGUSR2);
    });
    timer.once(1ms);
    EXPECT_EQ(daemon.run(), 0);
    EXPECT_TRUE(ran);
  });
}

TEST_P(DaemonRun, HandlersMayReplaceThemselvesAndSignalsAreIgnoredAtTheEnd) {
  run([] {
    Daemon daemon("test");
    std::string said;
    daemon.exceptionHandlerIs([&, text = std::string(100, 'x')](auto*) {
      daemon.exceptionHandlerIs(nullptr);
      said = text;
      return false;
    });
    daemon.onSignal(SIGHUP, [&] { said += "reload"; });
    std::optional<StopStep> slow;
    FunctionTask later(daemon.scheduler(), TaskPriority::low, "later", [&] { slow.reset(); });
    slow.emplace("slow", nullptr, [&] {
      raise(SIGHUP);
      later.schedule();
    });
    FunctionTask fails(daemon.scheduler(), TaskPriority::normal, "fails",
                       [] { throw std::runtime_error("once"); });
    fails.schedule();
    EXPECT_EQ(daemon.run(), 1);
    EXPECT_EQ(said, std::string(100, 'x'));
  });
}

TEST(DaemonStart, OpensStandardDescriptorsThatAreClosed) {
  EXPECT_EXIT(
      {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        Daemon daemon("test");
        bool const open = fcntl(STDIN_FILENO, F_GETFL) >= 0 && fcntl(STDOUT_FILENO, F_GETFL) >= 0;
        daemon.stop(open ? 7 : 8);
        _exit(daemon.run());
      },
      testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace BreloDaemon
