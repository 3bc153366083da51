#include "BreloDaemon/ChildTask.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Brelo/TaskSchedulerRoot.h"
#include "support/Backend.h"
#include "support/ChildProcess.h"
#include "support/FaultInjection.h"
#include "support/Handlers.h"

namespace BreloDaemon {
namespace {

using namespace BreloTest;
using namespace std::chrono_literals;
using Standard = ChildProgram::Standard;

ChildProgram shell(std::string const& script) {
  ChildProgram program;
  program.path = "/bin/sh";
  program.arguments = {"-c", script};
  return program;
}

bool hasChildren() {
  return ::waitpid(-1, nullptr, WNOHANG | __WALL) != -1 || errno != ECHILD;
}

class ChildTaskTest : public OnBothBackends {
 protected:
  template <class Body>
  void runWith(Body body) {
    run([&] {
      root_ = Brelo::schedulerRootBreloNonShared("root");
      body();
      root_.reset();
      EXPECT_TRUE(runUntil([] { return !hasChildren(); }));
    });
  }
  /// Its handler keeps the end, and then calls `then`.
  std::unique_ptr<ChildTask> start(
      ChildProgram program, std::function<void()> then = [] {}) {
    end_.reset();
    return std::make_unique<ChildTask>(root_, Brelo::TaskPriority::normal, "child",
                                       std::move(program), [this, then](ChildEnd const& end) {
                                         EXPECT_FALSE(end_);
                                         end_ = end;
                                         then();
                                       });
  }
  bool ends() {
    return runUntil([&] { return end_.has_value(); });
  }
  std::string howItEnds() { return ends() ? toString(*end_) : "not"; }
  /// What the program writes to its standard output.
  std::string said(ChildProgram program) {
    program.output = Standard::pipe;
    auto const task = start(std::move(program));
    Descriptor const output = task->takeOutput();
    EXPECT_EQ(howItEnds(), "exited with status 0");
    return readAll(output);
  }
  static std::string readAll(Descriptor const& from) {
    std::string text(4096, '\0');
    ssize_t const got = ::read(from.get(), text.data(), text.size());
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
  }

  static bool saysSomething(Descriptor const& output) {
    std::string text;
    return runUntil([&] { return !text.empty() || !(text = readAll(output)).empty(); });
  }

  std::shared_ptr<Brelo::TaskSchedulerRoot> root_;
  std::optional<ChildEnd> end_;
};
INSTANTIATE_BOTH_BACKENDS(ChildTaskTest);

TEST_P(ChildTaskTest, GivesTheProgramWhatItIsTold) {
  runWith([&] {
    auto program = shell("pwd; echo $0 $KEPT $ADDED ${LEFT_OUT-none}");
    ::setenv("KEPT", "old", 1);
    ::setenv("LEFT_OUT", "old", 1);
    program.arguments.insert(program.arguments.end(), {"name", "more"});
    program.environment = {"ADDED=a=b", "LEFT_OUT"};
    program.directory = "/";
    EXPECT_EQ(said(std::move(program)), "/\nname old a=b none\n");

    ChildProgram env;
    env.path = "env";
    env.pathSearched = true;
    env.environmentInherited = false;
    env.environment = {"ONLY=this"};
    EXPECT_EQ(said(std::move(env)), "ONLY=this\n");
    ::unsetenv("KEPT");
    ::unsetenv("LEFT_OUT");

    auto copies = shell("cat; echo err >&2; exit 3");
    copies.input = copies.output = copies.errors = Standard::pipe;
    auto const task = start(std::move(copies));
    EXPECT_EQ(::write(task->takeInput().get(), "in", 2), 2);
    Descriptor const output = task->takeOutput(), errors = task->takeErrors();
    EXPECT_FALSE(task->takeOutput());
    EXPECT_EQ(howItEnds(), "exited with status 3");
    EXPECT_EQ(readAll(output) + readAll(errors), "inerr\n");
  });
}

TEST_P(ChildTaskTest, GivesItNothingElse) {
  runWith([&] {
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    int const leaked = ::open("/", O_RDONLY);  // not close-on-exec

    // Numbers that are in each other's way.
    int ends[2][2];
    EXPECT_EQ(::pipe2(ends[0], O_CLOEXEC) | ::pipe2(ends[1], O_CLOEXEC), 0);
    EXPECT_EQ(::write(ends[0][1], "0\n", 2) + ::write(ends[1][1], "1\n", 2), 4);
    ::close(ends[0][1]);
    ::close(ends[1][1]);
    auto program = shell(
        "ls /proc/self/fd; read a </dev/fd/$A; read b </dev/fd/$B; echo $a $b; "
        "grep -E 'Sig(Blk|Ign|Pnd)' /proc/self/status");
    program.environment = {"A=" + std::to_string(ends[1][0]), "B=" + std::to_string(ends[0][0])};
    program.descriptors[ends[1][0]] = Descriptor(ends[0][0]);
    program.descriptors[ends[0][0]] = Descriptor(ends[1][0]);
    std::string const none = std::string(16, '0') + "\n";
    auto const got = said(std::move(program));
    EXPECT_EQ(got.substr(got.find("0 1\n")),
              "0 1\nSigPnd:\t" + none + "SigBlk:\t" + none + "SigIgn:\t" + none);
    EXPECT_EQ(got.find("\n" + std::to_string(leaked) + "\n"), std::string::npos) << got;
    EXPECT_EQ(::fcntl(ends[0][0], F_GETFD) & ::fcntl(ends[1][0], F_GETFD), -1);
    ::close(leaked);
    pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
  });
}

TEST_P(ChildTaskTest, SaysWhatCouldNotBeDone) {
  runWith([&] {
    std::string const trace = "/tmp/brelo-child-" + std::to_string(getpid());
    auto const fails = [&](ChildProgram program, int error, char const* text) {
      unsigned const before = openDescriptors();
      program.input = Standard::pipe;
      try {
        start(std::move(program));
        ADD_FAILURE() << text;
      } catch (std::system_error const& failure) {
        EXPECT_EQ(failure.code().value(), error) << failure.what();
        EXPECT_NE(std::string(failure.what()).find(text), std::string::npos) << failure.what();
      }
      EXPECT_EQ(openDescriptors(), before);
      EXPECT_FALSE(hasChildren());
      EXPECT_EQ(unlink(trace.c_str()), -1) << "it has run all the same";
    };
    ChildProgram program;
    program.path = "/bin/there-is-none";
    fails(std::move(program), ENOENT, "failed to start /bin/there-is-none, to execute");
    program = {};
    program.path = "there-is-none";
    program.pathSearched = true;
    fails(std::move(program), ENOENT, "to execute");
    program = {};
    program.path = "/etc/passwd";
    fails(std::move(program), EACCES, "to execute");
    program = shell("touch " + trace);
    program.directory = "/there-is-none";
    fails(std::move(program), ENOENT, "to enter a directory");
    program = shell("touch " + trace);
    program.descriptors[7];
    fails(std::move(program), EBADF, "to duplicate a descriptor");
    program = shell("touch " + trace);
    program.output = Standard::null;
    FaultInjection const faults({{"open", {EMFILE}}});
    fails(std::move(program), EMFILE, "to open /dev/null");
  });
}

TEST_P(ChildTaskTest, EndsWhatRunsTooLong) {
  runWith([&] {
    auto program = shell("exec sleep 100");
    program.timeLimit = 20ms;
    auto task = start(std::move(program));
    EXPECT_EQ(::kill(task->pid(), 0), 0);
    EXPECT_EQ(howItEnds(), "killed by signal 15 (Terminated), its time was up");
    EXPECT_FALSE(task->signal(0));

    // One that does not want to, with a grandchild that holds the pipe.
    program = shell("trap '' TERM; echo; sleep 100 & sleep 100");
    program.output = Standard::pipe;
    program.group = ChildProgram::Group::own;
    program.killGrace = 10ms;
    task = start(std::move(program));
    Descriptor const output = task->takeOutput();
    EXPECT_TRUE(saysSomething(output));
    task->terminate();
    EXPECT_EQ(howItEnds(), "killed by signal 9 (Killed)");
    EXPECT_TRUE(runUntil([&] { return ::read(output.get(), &end_, 1) == 0; }));

    // The leader goes at once, and what is left of its group with it.
    program = shell("(trap '' TERM; echo; sleep 100; sleep 100) & wait");
    program.output = Standard::pipe;
    program.group = ChildProgram::Group::session;
    task = start(std::move(program));
    Descriptor const other = task->takeOutput();
    EXPECT_TRUE(saysSomething(other));
    EXPECT_TRUE(task->signal(SIGSTOP));
    task->terminate();
    EXPECT_EQ(howItEnds(), "killed by signal 15 (Terminated)");
    EXPECT_TRUE(runUntil([&] { return ::read(other.get(), &end_, 1) == 0; }));
  });
}

TEST_P(ChildTaskTest, LeavesNoZombieWhateverBecomesOfIt) {
  runWith([&] {
    auto task = start(shell("exec sleep 100"));
    EXPECT_TRUE(passesInChild([&] {
      EXPECT_FALSE(task->signal(SIGKILL));
      task.reset();
    }));
    EXPECT_TRUE(task->signal(0));
    task.reset();
    EXPECT_FALSE(end_);

    task = start(shell("exit 1"), [&] {
      task.reset();
      throw std::runtime_error("its last word");
    });
    EXPECT_THROW(Brelo::Platform::doEventLoop(), std::runtime_error);
    root_->requestSchedulerRun();
    EXPECT_EQ(howItEnds(), "exited with status 1");
    Brelo::Platform::doEventLoop();

    task = start(shell("exec sleep 0.02"));
    EXPECT_TRUE(passesInChild([&] {
      Brelo::Platform::doEventLoop();
      EXPECT_FALSE(end_);  // it is the parent's
    }));
    EXPECT_EQ(howItEnds(), "exited with status 0");

    task = start(shell("kill -9 $$"));
    Brelo::Platform::doEventLoop();  // is kept running until then
    EXPECT_EQ(howItEnds(), "killed by signal 9 (Killed)");
  });
}

TEST_P(ChildTaskTest, MayBeWaitedForByOthers) {
  runWith([&] {
    ::signal(SIGCHLD, SIG_IGN);
    auto task = start(shell("exit 1"));
    EXPECT_EQ(howItEnds(), "was waited for elsewhere");
    task = start(shell("exec sleep 100"));
    task.reset();
    ChildProgram none;
    none.path = "/there-is-none";
    EXPECT_THROW(start(std::move(none)), std::system_error);
    ::signal(SIGCHLD, SIG_DFL);
  });
}

TEST_P(ChildTaskTest, ManyLeaveNothingBehind) {
  char const* const wanted = ::getenv("CHILDREN");  // of ./dev soak
  int const count = wanted != nullptr ? std::atoi(wanted) : 150;
  runWith([&] {
    auto const first = start(shell(""));  // the loop, too, has descriptors
    EXPECT_EQ(howItEnds(), "exited with status 0");
    unsigned const before = openDescriptors();
    int started = 0, ended = 0;
    std::vector<std::unique_ptr<ChildTask>> tasks(16);
    while (ended < count) {
      for (auto& task : tasks) {
        if (started == count || (task != nullptr && task->running())) continue;
        ChildProgram program;
        program.path = started % 3 == 0 ? "/bin/false" : "/bin/true";
        program.input = program.output = Standard::pipe;
        int const status = started % 3 == 0 ? 1 : 0;
        bool const kept = started++ % 5 != 0;
        task = std::make_unique<ChildTask>(root_, Brelo::TaskPriority::normal, "child",
                                           std::move(program), [&, status](ChildEnd const& end) {
                                             EXPECT_EQ(end.status, status);
                                             ++ended;
                                           });
        if (!kept) {
          task.reset();
          ++ended;
        }
      }
      Brelo::Platform::doEventLoop(0.001);
    }
    tasks.clear();
    // One that is slow to die is waited for by a thread.
    EXPECT_TRUE(runUntil([&] { return openDescriptors() == before; }));
  });
}

}  // namespace
}  // namespace BreloDaemon
