#include "Scenario.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <new>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>

#include "Attempts.h"
#include "Brelo/Backtrace.h"
#include "Brelo/Debug.h"
#include "Brelo/Exception.h"
#include "Brelo/Platform.h"
#include "Brelo/Task.h"
#include "Brelo/TaskControl.h"
#include "Brelo/TimerWheel.h"
#include "FailingMalloc.h"

namespace Faults {

using Brelo::TaskPriority;
using Brelo::Platform::doEventLoop;

namespace {

int openDescriptors() {
  Uncounted const own;
  DIR* const directory = opendir("/proc/self/fd");
  int count = 0;
  while (readdir(directory) != nullptr)
    ++count;
  closedir(directory);
  return count;
}

struct SocketPair {
  SocketPair() {
    expect(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "a socket pair");
  }
  SocketPair(SocketPair const&) = delete;
  ~SocketPair() {
    close(ends[0]);
    close(ends[1]);
  }
  int ends[2];
};

/// Runs three times, asking for the next one itself.
class Thrice : public Brelo::Task {
 public:
  using Task::Task;
  void taskExecute() override {
    if (++runs < 3) scheduleTask();
  }
  int runs = 0;
};

/// Notes that it fired, and whether that was early.
struct Fired {
  void now() {
    ++times;
    if (Brelo::time() < due) early = true;
  }
  double due = 0;
  int times = 0;
  bool early = false;
};

struct Delayed : Brelo::TimerTask, Fired {
  using TimerTask::TimerTask;
  void taskExecute() override { now(); }
};

struct Handler : Brelo::Platform::TimeoutHandler, Brelo::Platform::CallbackHandler, Fired {
  void timeout() override { now(); }
  void callback() override { now(); }
};

/// Sends back what it gets.
class Echo : public Brelo::FileDescriptorTask {
 public:
  using FileDescriptorTask::FileDescriptorTask;
  void taskExecuteReadable() override {
    char byte;
    if (read(taskWatchFd(), &byte, 1) != 1) return;
    expect(write(taskWatchFd(), &byte, 1) == 1, "the echo is written");
  }
  void taskExecuteWritable() override {}
};

}  // namespace

void Scenario::run() {
  firstUse();
  int const before = openDescriptors();
  for (auto const& [name, part] :
       std::initializer_list<std::pair<char const*, void (Scenario::*)()>>{
           {"a tree", &Scenario::tree},
           {"tasks", &Scenario::tasks},
           {"timers", &Scenario::timers},
           {"descriptors", &Scenario::descriptors},
           {"connections", &Scenario::connections},
           {"threads", &Scenario::threads},
           {"signals and children", &Scenario::signalsAndChildren},
           {"the service manager", &Scenario::serviceManager},
           {"names", &Scenario::names},
           {"reports", &Scenario::reports},
           {"an export", &Scenario::exports},
           {"exceptions", &Scenario::exceptions},
           {"texts", &Scenario::texts},
           {"all once more", &Scenario::tasks},
           {"timers once more", &Scenario::timers},
           {"the end", &Scenario::end}}) {
    entered_(name);
    (this->*part)();
  }
  expect(openDescriptors() == before, "no descriptor is left");
}

/// What keeps a descriptor for the life of the process: the loop, and a walk of the stack.
void Scenario::firstUse() {
  entered_("text: first use");
  attempt([] { doEventLoop(0); });
  entered_("first use");
  struct : Brelo::Platform::FdEventHandler {
    void readFdEvent(int) override {}
    void writeFdEvent(int) override {}
  } handler;
  SocketPair const pair;
  auto const control = attempt([&] { return Brelo::Platform::getFdControl(&handler); });
  attempt([&] { control->setReads(true); });
  attempt([&] { control->setFd(pair.ends[0]); });
  attempt([] { doEventLoop(0); });
  attempt([] { Brelo::Exception const first("the first", true); });
}

void Scenario::tree() {
  root_ = attempt([] { return Brelo::schedulerRootBreloNonShared("a root to be swept through"); });
  group_ = attempt(
      [&] { return Brelo::TaskGroup::TaskGroupIs("a group", TaskPriority::normal, false, root_); });
  inner_ = attempt([&] {
    return Brelo::TaskGroup::TaskGroupIs("a group in it", TaskPriority::low, true, group_);
  });
  expect(root_->taskGroupCount() == 2, "two groups");
}

void Scenario::tasks() {
  std::array<std::shared_ptr<Thrice>, 6> all;
  std::array<std::shared_ptr<Brelo::TaskScheduler>, 3> const schedulers{root_, group_, inner_};
  for (std::size_t i = 0; i < all.size(); ++i) {
    auto const priority = i % 3 == 2 ? TaskPriority::low : TaskPriority::high;
    all[i] = attempt([&] {
      return std::make_shared<Thrice>(schedulers[i % 3], priority, "a task that runs three times");
    });
    attempt([&] { all[i]->scheduleTask(); });
  }
  loopUntil("each task runs three times", [&] {
    for (auto const& task : all)
      if (task->runs < 3) return false;
    return true;
  });
  for (auto const& task : all)
    expect(task->runs == 3, "no task runs more often");
  Uncounted const own;
  kept_.assign(all.begin(), all.end());
}

void Scenario::timers() {
  auto const wheel = attempt(
      [] { return Brelo::getTimerWheelForTaskScheduler(Brelo::Platform::eventPriorityDefault); });
  std::array<std::shared_ptr<Delayed>, 16> tasks;
  std::array<Handler, 8> handlers;
  std::array<std::shared_ptr<Brelo::Platform::TimerControl>, 6> timers;
  std::array<Fired*, 24> all;
  auto next = all.begin();
  auto const delay = [](std::size_t i) { return 0.0002 * static_cast<double>(i % 7) + 1e-6; };

  for (std::size_t i = 0; i < tasks.size(); ++i) {
    auto& task = tasks[i];
    task = attempt(
        [&] { return std::make_shared<Delayed>(root_, TaskPriority::normal, "a delayed task"); });
    attempt([&] {
      task->due = Brelo::time() + delay(i);
      task->scheduleTaskDelay(delay(i));
    });
    *next++ = task.get();
  }
  for (std::size_t i = 0; i < timers.size(); ++i) {
    timers[i] = attempt([&]() -> std::shared_ptr<Brelo::Platform::TimerControl> {
      if (i % 3 == 0) return Brelo::Platform::getTimerControl(&handlers[i]);
      if (i % 3 == 1) return Brelo::Platform::getTimerControl(&handlers[i], wheel);
      return Brelo::Platform::getTimerControl(&handlers[i], group_, TaskPriority::high, "a timer");
    });
    attempt([&] {
      handlers[i].due = Brelo::time() + delay(i) - 1e-6;  // a plain one is cut to microseconds
      timers[i]->setTimeout(delay(i));
    });
    *next++ = &handlers[i];
  }
  auto const callback = attempt([&] { return Brelo::Platform::getCallbackControl(&handlers[6]); });
  auto const taskCallback = attempt([&] {
    return Brelo::Platform::getCallbackControl(&handlers[7], inner_, TaskPriority::low, "called");
  });
  attempt([&] { callback->requestCallback(); });
  attempt([&] { taskCallback->requestCallback(); });
  *next++ = &handlers[6];
  *next++ = &handlers[7];

  loopUntil("each timer fires", [&] {
    for (Fired const* const fired : all)
      if (fired->times == 0) return false;
    return true;
  });
  for (Fired const* const fired : all)
    expect(fired->times == 1 && !fired->early, "each timer fires once and not early");
}

void Scenario::descriptors() {
  SocketPair const pair;
  auto const echo = attempt([&] {
    return std::make_shared<Echo>(group_, TaskPriority::normal, "echo with a name of some length");
  });
  attempt([&] { echo->taskWatchFdIs(pair.ends[0]); });
  for (char byte = 'a'; byte < 'f'; ++byte) {
    expect(write(pair.ends[1], &byte, 1) == 1, "a byte is sent");
    char back = 0;
    loopUntil("the byte comes back",
              [&] { return recv(pair.ends[1], &back, 1, MSG_DONTWAIT) == 1; });
    expect(back == byte, "it is the same byte");
    attempt([&] { echo->taskWatchWritableIs(true); });
  }
  loopUntil("the socket is writable", [&] { return !echo->taskWatchWritable(); });
  attempt([&] { echo->taskWatchFdDel(); });
}

void Scenario::names() {
  for (unsigned i = 0; i < 12; ++i) {
    auto const task = attempt([&] {
      return std::make_shared<Thrice>(root_, TaskPriority::scavenge, "a task of a short life");
    });
    attempt([&] { task->taskStatsNameIs("short lives, kind " + std::to_string(i % 5)); });
    attempt([&] { task->scheduleTask(); });
    loopUntil("it runs", [&] { return task->runs == 3; });
  }
  attempt([&] { root_->historyEntryCountIs(37); });
}

void Scenario::reports() {
  auto const json = attempt([&] { return root_->statsRenderJsonToString(true, true, true); });
  auto const text =
      attempt([&] { return root_->statsRenderTextForDebugToString(true, true, true, true); });
  Uncounted const own;
  expect(nlohmann::json::accept(json), "the report is JSON");
  expect(json.find("a task that runs three times") != std::string::npos, "it names the tasks");
  expect(text.find("short lives, kind") != std::string::npos, "so does the text");
}

void Scenario::exports() {
  std::optional<Uncounted> own(std::in_place);
  std::string text;
  text.reserve(1 << 20);
  own.reset();
  for (bool whole = false; !whole;) {
    text.clear();
    int ends[2];
    expect(pipe2(ends, O_NONBLOCK | O_CLOEXEC) == 0, "a pipe");
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
    bool over = false;
    unsigned const refusedBefore = refused_;
    attempt([&] {
      auto const snapshot =
          root_->snapshot("", true, true, true, Brelo::TaskSchedulerSnapshot::displayOrderUnset);
      root_->snapshotRenderJsonAsync(ends[1], {snapshot}, [&] { over = true; });
    });
    std::array<char, 512> piece;
    loopUntil("the export ends", [&] {
      for (ssize_t n = 0; (n = read(ends[0], piece.data(), piece.size())) > 0;)
        text.append(piece.data(), static_cast<std::size_t>(n));
      return over;
    });
    own.emplace();
    for (ssize_t n = 0; (n = read(ends[0], piece.data(), piece.size())) > 0;)
      text.append(piece.data(), static_cast<std::size_t>(n));
    expect(fcntl(ends[1], F_GETFD) < 0, "the export has closed its descriptor");
    close(ends[0]);
    whole = nlohmann::json::accept(text);
    expect(whole || refused_ != refusedBefore, "an export is cut short only by an exception");
    own.reset();
  }
}

void Scenario::exceptions() {
  attempt([] {
    try {
      Brelo::RuntimeException::throwException("a failure with a message of some length");
    } catch (Brelo::Exception const& exception) {
      Brelo::Exception const copy(exception);
    }
  });
}

void Scenario::texts() {
  Brelo::BacktraceTracker::enabledIs(true);
  try {
    Brelo::RuntimeException::throwException("a failure with a message of some length");
  } catch (Brelo::Exception const& exception) {
    expect(std::strstr(exception.what(), "of some length") != nullptr, "its text");
  } catch (std::bad_alloc const&) {
    ++refused_;
  }
  attempt([] {
    std::ostringstream text;
    Brelo::BacktraceTracker::printAll(text);
  });
  auto const trace = attempt([] { return Brelo::Platform::getDebugHandler("TaskScheduler"); });
  for (unsigned short level = 0; level < 16; ++level)
    trace->enabledIs(level, true);
  tasks();
  for (unsigned short level = 0; level < 16; ++level)
    trace->enabledIs(level, false);
}

void Scenario::end() {
  std::weak_ptr<Brelo::TaskSchedulerRoot> const root = root_;
  kept_.clear();
  inner_.reset();
  group_.reset();
  expect(root_->taskGroupCount() == 0, "no group is left");
  root_.reset();
  expect(root.expired(), "nobody holds the root");
  attempt([] { doEventLoop(); });
}

}  // namespace Faults
