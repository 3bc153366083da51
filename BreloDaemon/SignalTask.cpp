#include "BreloDaemon/SignalTask.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "Brelo/Task.h"
#include "BreloDaemon/Descriptor.h"
#include "BreloDaemon/StopStep.h"
#include "BreloDaemon/internal/BlockedSignals.h"
#include "BreloDaemon/internal/Watching.h"

namespace BreloDaemon {

namespace Impl {

/// The task of a SignalTask, which may end inside of its run.
class SignalTaskInner : public Watching<Brelo::Task> {
 public:
  SignalTaskInner(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
                  std::string const& name, std::initializer_list<int> signals,
                  SignalTask::Handler handler)
      : Watching(std::move(scheduler), priority, name),
        handler_(std::move(handler)),
        blocked_(signals),
        fd_(::signalfd(-1, &blocked_.signals(), SFD_NONBLOCK | SFD_CLOEXEC)),
        step_("signals " + name, nullptr, [this] { stop(); }) {
    if (!fd_) throw std::system_error(errno, std::generic_category(), "signalfd");
    watch(fd_.get());
  }
  ~SignalTaskInner() override { end(); }

  void end() {
    stop();
    blocked_.release();
  }

 private:
  void taskExecute() override {
    try {
      deliver();
    } catch (...) {
      if (fd_) watchAgain();
      throw;
    }
    if (fd_) watchAgain();
  }

  void deliver() {
    signalfd_siginfo signal;
    while (fd_ && ::read(fd_.get(), &signal, sizeof signal) == sizeof signal) {
      taskWorkCountInc(1);
      handler_(signal);
      if (taskShouldYield()) return;
    }
  }

  /// The mask stays as it is: a signal that comes late is not to end the process.
  void stop() {
    if (!fd_) return;
    watchNoMore();
    unscheduleTask();
    fd_.reset();
    step_.done();
  }

  SignalTask::Handler const handler_;
  BlockedSignals blocked_;
  Descriptor fd_;  // none when stopped
  StopStep step_;
};

}  // namespace Impl

SignalTask::SignalTask(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                       Brelo::TaskPriority priority, std::string name,
                       std::initializer_list<int> signals, Handler handler)
    : inner_(std::make_shared<Impl::SignalTaskInner>(std::move(scheduler), priority, name, signals,
                                                     std::move(handler))) {}

SignalTask::~SignalTask() {
  inner_->end();
}

}  // namespace BreloDaemon
