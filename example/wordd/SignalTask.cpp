#include "SignalTask.h"

#include <signal.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace Wordd {

namespace {

Descriptor blockAndWatch(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (int const signal : signals)
    sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  Descriptor descriptor(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
  if (descriptor.get() < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
  return descriptor;
}

}  // namespace

SignalTask::SignalTask(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                       std::initializer_list<int> signals, std::function<void(int)> handler)
    : FileDescriptorTask(std::move(scheduler), Brelo::TaskPriority::high, "signals"),
      signals_(blockAndWatch(signals)),
      handler_(std::move(handler)) {
  taskWatchFdIs(signals_.get());
}

SignalTask::~SignalTask() {
  taskWatchFdDel();
}

void SignalTask::taskExecuteReadable() {
  signalfd_siginfo info;
  if (::read(signals_.get(), &info, sizeof info) != sizeof info) return;
  handler_(static_cast<int>(info.ssi_signo));
}

}  // namespace Wordd
