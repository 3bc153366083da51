#include "Acceptor.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

namespace Wordd {

namespace {

using namespace std::chrono_literals;

constexpr int batch = 16;
constexpr Brelo::TaskTimeDuration retryDelay{100ms};

}  // namespace

int checked(int result, char const* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

Acceptor::Acceptor(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, std::string const& name,
                   Descriptor listening)
    : FileDescriptorTask(scheduler, Brelo::TaskPriority::normal, name),
      listening_(std::move(listening)),
      resume_(std::make_shared<Timeout>(scheduler, name + ":resume",
                                        [this] { taskWatchReadableIs(true); })) {
  taskWatchFdIs(listening_.get());
}

Acceptor::~Acceptor() {
  taskWatchFdDel();
}

void Acceptor::taskExecuteReadable() {
  for (int i = 0; i < batch; ++i) {
    int const fd = ::accept4(listening_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      accepted(Descriptor(fd));
      continue;
    }
    switch (errno) {
      case EAGAIN:
        return;
      case EMFILE:
      case ENFILE:
      case ENOBUFS:
      case ENOMEM:
        // The client stays in the queue and the socket readable: without a pause we would spin.
        taskWatchReadableIs(false);
        resume_->scheduleTaskDelay(retryDelay);
        return;
      default:
        break;  // EINTR, or an error of this one client, such as ECONNABORTED
    }
  }
}

}  // namespace Wordd
