#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <system_error>

#include "Brelo/Platform.h"

namespace Bench {

/// Watches a descriptor that never becomes ready. A host loop that watches nothing has nothing to
/// poll and makes no call, where the peers' loops always poll: with this, the project does too.
class IdleWatch : Brelo::Platform::FdEventHandler {
 public:
  IdleWatch() : fd_(eventfd(0, EFD_CLOEXEC)), control_(Brelo::Platform::getFdControl(this)) {
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    control_->setReads(true);
    control_->setFd(fd_);
  }
  IdleWatch(IdleWatch const&) = delete;
  IdleWatch& operator=(IdleWatch const&) = delete;
  ~IdleWatch() override {
    end();
    close(fd_);
  }

  /// The loop returns once there is nothing else to wait for.
  void end() { control_->delFd(); }

 private:
  void readFdEvent(int) override {}
  void writeFdEvent(int) override {}

  int fd_;
  std::shared_ptr<Brelo::Platform::FdControl> control_;
};

}  // namespace Bench
