#include "Acceptor.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <utility>

#include "Trace.h"

namespace Wordd {

namespace {

using namespace std::chrono_literals;

constexpr int batch = 16;
constexpr Brelo::TaskTimeDuration retryDelay{100ms};

}  // namespace

Acceptor::Acceptor(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, std::string const& name,
                   Descriptor listening)
    : FileDescriptorTask(scheduler, Brelo::TaskPriority::normal, name),
      listening_(std::move(listening)),
      resume_(std::make_shared<Timeout>(scheduler, name + ":resume", [this] { resume(); })) {
  taskWatchFdIs(listening_.get());
}

Acceptor::~Acceptor() {
  taskWatchFdDel();
}

void Acceptor::taskExecuteReadable() {
  for (int i = 0; i < batch && !full_; ++i) {
    int const fd = ::accept4(listening_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      take(Descriptor(fd));
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
        return pause();
      default:
        break;  // EINTR, or an error of this one client, such as ECONNABORTED
    }
  }
}

// Memory that runs out for a client, or a watch that the kernel refuses, is nobody else's end.
void Acceptor::take(Descriptor socket) {
  try {
    accepted(std::move(socket));
  } catch (std::exception const& error) {
    BRELO_TRACE(trace, 1, "Acceptor", "{}: a client is refused: {}", taskName(), error.what());
  }
}

void Acceptor::fullIs(bool full) {
  if (full == std::exchange(full_, full)) return;
  if (full) {
    taskWatchReadableIs(false);
  } else {
    resume_->scheduleTask();
  }
}

void Acceptor::pause() {
  taskWatchReadableIs(false);
  resume_->scheduleTaskDelay(retryDelay);
}

void Acceptor::resume() {
  if (full_) return;
  try {
    taskWatchReadableIs(true);
  } catch (std::exception const& error) {
    BRELO_TRACE(trace, 1, "Acceptor", "{}: tries again: {}", taskName(), error.what());
    resume_->scheduleTaskDelay(retryDelay);
  }
}

}  // namespace Wordd
