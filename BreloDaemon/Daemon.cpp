#include "BreloDaemon/Daemon.h"

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <initializer_list>
#include <list>
#include <optional>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

#include "Brelo/Assert.h"
#include "Brelo/Platform.h"
#include "Brelo/Time.h"
#include "BreloDaemon/FunctionTask.h"
#include "BreloDaemon/SignalTask.h"
#include "BreloDaemon/StopStep.h"
#include "BreloDaemon/internal/BlockedSignals.h"
#include "BreloDaemon/internal/CallbackSlot.h"
#include "BreloDaemon/internal/StandardError.h"
#include "BreloDaemon/internal/StopSequence.h"

namespace BreloDaemon {

namespace {

using Brelo::TaskPriority;

// More exceptions than these within a second are no passing trouble.
constexpr int exceptionsMax = 100;

// How often it is looked whether anything is left, once nothing of the kit is.
constexpr double lookSeconds = 0.01;

// Two signals within this time are one: timeout(1) sends its own to the process and to its group.
constexpr double sameSignalSeconds = 0.05;

/// A second daemon on a thread would end with the first one's steps.
class OnlyOneOfThread {
 public:
  explicit OnlyOneOfThread(std::string const& name) {
    if (std::exchange(made, true)) BRELO_FAIL("Daemon", "{} is a second one on its thread", name);
  }
  OnlyOneOfThread(OnlyOneOfThread const&) = delete;
  ~OnlyOneOfThread() { made = false; }

 private:
  static thread_local bool made;
};

thread_local bool OnlyOneOfThread::made = false;

/// Has done what comes before the first descriptor and the first write to a peer.
std::string prepared(std::string name) {
  Impl::openStandardDescriptors();
  ::signal(SIGPIPE, SIG_IGN);
  return name;
}

double inSeconds(std::chrono::nanoseconds duration) {
  return std::chrono::duration<double>(duration).count();
}

/// What the exception in flight says of itself.
std::string currentExceptionText() {
  try {
    throw;
  } catch (std::exception const& exception) {
    return exception.what();
  } catch (...) {
    return "an exception of unknown type";
  }
}

}  // namespace

class Daemon::Frame {
 public:
  Frame(std::string name, DaemonOptions const& options)
      : onlyOne_(name),
        name_(prepared(std::move(name))),
        limit_(inSeconds(options.stopLimit)),
        readyAtRun_(options.readyAtRun),
        stopSignals_(options.stopSignals),
        scheduler_(Brelo::TaskSchedulerRoot::TaskSchedulerRootIs(name_)),
        goOn_(scheduler_, TaskPriority::absolute, name_ + ":stop", [this] { goOn(); }),
        resume_([this] { goOn_.schedule(); }) {
    if (!(limit_ > 0)) BRELO_FAIL("Daemon", "limit of {} s", limit_);
    scheduler_->taskExceptionHandlerIs([this](Brelo::_TaskBase& task) {
      exceptionThrown(&task);
      return true;
    });
    sigemptyset(&stopSignalSet_);
    for (int const signal : options.stopSignals) {
      std::initializer_list<int> const one{signal};
      stopTasks_.emplace_back(scheduler_, TaskPriority::absolute, name_ + ":signals", one,
                              [this](auto const&) { stopSignal(); });
      heldSignals_.emplace_back(one);
      sigaddset(&stopSignalSet_, signal);
    }
    service_.feedWatchdog(scheduler_, options.watchdogPriority);
  }
  Frame(Frame const&) = delete;
  ~Frame() {
    StopSequence::instance().reset();
    scheduler_->taskExceptionHandlerIs(nullptr);
  }

  std::string const& name() const { return name_; }
  std::shared_ptr<Brelo::TaskSchedulerRoot> const& scheduler() const { return scheduler_; }
  bool stopping() const { return stopping_; }

  ServiceNotify& service() { return service_; }

  int run() {
    running_ = true;
    if (readyAtRun_) enter([this] { report(service_.ready()); });
    while (!stopping_) {
      enter([this] {
        Brelo::Platform::doEventLoop();
        stop(0);  // nothing was left, or a stop
      });
    }
    while (!stepsDone_ && left() > 0) {
      enter([this] {
        goOn_.schedule();
        Brelo::Platform::doEventLoop(left());
      });
    }
    stopTasks_.clear();
    bool ended = false;
    while (true) {
      enter([&] { ended = nothingLeft(); });
      if (ended || left() <= 0) break;
      enter([this] { Brelo::Platform::doEventLoop(std::min(lookSeconds, left())); });
    }
    if (!ended) enter([this] { sayWhatIsLeft(); });
    return status_;
  }

  void stop(int status) {
    status_ = std::max(status_, status);
    if (std::exchange(stopping_, true)) return;
    stopTime_ = Brelo::time();
    deadline_ = stopTime_ + limit_;
    if (running_) Brelo::Platform::stopEventLoop();  // entered again with a bound
    for (int const signal : ownSignals_)
      ::signal(signal, SIG_IGN);  // one that comes when nobody takes it any more
    report(service_.stopping());
    goOn_.schedule();
  }

  void onStop(std::string name, std::function<void()> step) {
    auto& place = steps_.emplace_back();
    place.emplace(std::move(name), nullptr, [&place, step = std::move(step)] {
      step();
      place->done();
    });
  }

  void onSignal(int signal, std::function<void()> handler) {
    if (std::count(stopSignals_.begin(), stopSignals_.end(), signal) != 0)
      BRELO_FAIL("Daemon", "signal {} ends the daemon", signal);
    signals_.emplace_back(
        scheduler_, TaskPriority::high, name_ + ":signal" + std::to_string(signal),
        std::initializer_list<int>{signal}, [this, handler = std::move(handler)](auto const&) {
          if (!stopping_) handler();
        });
    ownSignals_.push_back(signal);
  }

  void exceptionHandlerIs(std::function<bool(Brelo::_TaskBase*)> handler) {
    exceptionHandler_.set(std::move(handler));
  }

 private:
  double left() const { return deadline_ - Brelo::time(); }

  /// Of what keeps the loop, when the steps are done. Those that were made since then are taken.
  bool nothingLeft() {
    timespec const now{};
    if (sigtimedwait(&stopSignalSet_, nullptr, &now) > 0) hurry();
    if (StopSequence::instance().empty()) return Brelo::Platform::pendingCount() == 0;
    if (left() > 0) goOn_.schedule();
    return false;
  }

  /// Takes what is thrown, memory that is short included.
  template <class Entry>
  void enter(Entry entry) {
    try {
      if (leftByException_) scheduler_->requestSchedulerRun();
      leftByException_ = false;
      entry();
    } catch (...) {
      leftByException_ = true;
      exceptionThrown(nullptr);
    }
  }

  void goOn() {
    try {
      if (!std::exchange(begun_, true)) StopSequence::instance().begin(resume_);
      stepsDone_ = StopSequence::instance().goOn();
    } catch (...) {
      goOn_.schedule();
      throw;
    }
    if (stepsDone_) Brelo::Platform::stopEventLoop();
  }

  void stopSignal() {
    if (!stopping_) return stop(0);
    hurry();
    Brelo::Platform::stopEventLoop();
  }

  /// At a stop signal that comes during the end: the limit is over.
  void hurry() {
    if (Brelo::time() - stopTime_ > sameSignalSeconds) deadline_ = 0;
  }

  void exceptionThrown(Brelo::_TaskBase* task) {
    if (stopping_) Brelo::Platform::stopEventLoop();  // asked to go on when it is entered again
    try {
      if (exceptionHandler_) {
        if (!exceptionHandler_(task)) stop(1);
        return;
      }
      say((task != nullptr ? "task \"" + task->taskName() + "\": " : "a handler: ") +
          currentExceptionText());
    } catch (...) {
      // No memory for the text, or a handler that throws itself: counted like the others.
    }
    double const now = Brelo::time();
    if (now - exceptionsSince_ > 1) {
      exceptionsSince_ = now;
      exceptions_ = 0;
    }
    if (++exceptions_ > exceptionsMax) stop(1);
  }

  void report(std::error_code error) {
    if (error) say("the service manager cannot be told: " + error.message());
  }

  void sayWhatIsLeft() {
    status_ = std::max(status_, 1);
    say("the end takes too long");
    for (auto const& step : StopSequence::instance().unfinished())
      say("step \"" + step + "\" is not done");
    std::stringstream pending;
    Brelo::Platform::pendingRender(pending);
    for (std::string line; std::getline(pending, line);)
      say(line);
  }

  void say(std::string const& text) { Impl::sayOnStandardError(name_ + ": " + text + "\n"); }

  OnlyOneOfThread const onlyOne_;
  std::string const name_;
  double const limit_;  // seconds
  bool const readyAtRun_;
  std::vector<int> const stopSignals_;
  std::shared_ptr<Brelo::TaskSchedulerRoot> const scheduler_;
  ServiceNotify service_;
  FunctionTask goOn_;
  std::function<void()> const resume_;
  std::list<SignalTask> stopTasks_;
  std::list<Impl::BlockedSignals> heldSignals_;  // beyond the end of the tasks
  sigset_t stopSignalSet_;
  std::list<SignalTask> signals_;
  std::vector<int> ownSignals_;
  std::list<std::optional<StopStep>> steps_;
  CallbackSlot<bool(Brelo::_TaskBase*)> exceptionHandler_;
  double exceptionsSince_ = 0;
  int exceptions_ = 0;
  double stopTime_ = 0;
  double deadline_ = 0;
  int status_ = 0;
  bool running_ = false;
  bool stopping_ = false;
  bool begun_ = false;
  bool stepsDone_ = false;
  bool leftByException_ = false;  // of which a run may be due that nobody has asked for
};

Daemon::Daemon(std::string name, DaemonOptions options)
    : frame_(std::make_unique<Frame>(std::move(name), options)) {}

Daemon::~Daemon() = default;

std::string const& Daemon::name() const {
  return frame_->name();
}

std::shared_ptr<Brelo::TaskSchedulerRoot> const& Daemon::scheduler() const {
  return frame_->scheduler();
}

ServiceNotify& Daemon::service() const {
  return frame_->service();
}

int Daemon::run() {
  return frame_->run();
}

void Daemon::stop(int status) {
  frame_->stop(status);
}

bool Daemon::stopping() const {
  return frame_->stopping();
}

void Daemon::onStop(std::string name, std::function<void()> step) {
  frame_->onStop(std::move(name), std::move(step));
}

void Daemon::onSignal(int signal, std::function<void()> handler) {
  frame_->onSignal(signal, std::move(handler));
}

void Daemon::exceptionHandlerIs(std::function<bool(Brelo::_TaskBase* task)> handler) {
  frame_->exceptionHandlerIs(std::move(handler));
}

}  // namespace BreloDaemon
