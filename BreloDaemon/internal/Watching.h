#pragma once

#include <memory>
#include <string>
#include <utility>

#include "Brelo/Platform.h"
#include "Brelo/TaskPriority.h"
#include "Brelo/TaskSchedulerBase.h"

namespace BreloDaemon::Impl {

/// A task (a Task or a TimerTask) that a readable descriptor asks for. From the event on nothing
/// is looked at until a run has called `watchAgain()`; unlike a FileDescriptorTask it is one task,
/// and what a run throws is no end of it.
template <class Base>
class Watching : public Base, Brelo::Platform::FdEventHandler {
 protected:
  Watching(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
           std::string const& name)
      : Base(std::move(scheduler), priority, name), control_(Brelo::Platform::getFdControl(this)) {}

  /// Throws `std::system_error`.
  void watch(int fd) {
    control_->setReads(true);
    control_->setFd(fd);
  }
  void watchAgain() {
    try {
      control_->setReads(true);
    } catch (...) {
      Base::scheduleTask();  // tries again after its run, or nobody ever would
      throw;
    }
  }
  /// Before the descriptor is closed.
  void watchNoMore() { control_->delFd(); }

 private:
  void readFdEvent(int) override {
    Base::scheduleTask();
    control_->setReads(false);
  }
  void writeFdEvent(int) override {}
  std::string handlerName() const override { return '"' + Base::taskName() + '"'; }

  std::shared_ptr<Brelo::Platform::FdControl> control_;
};

}  // namespace BreloDaemon::Impl
