#include "SignalTask.h"

#include <signal.h>
#include <sys/signalfd.h>

#include <utility>

#include "Checked.h"

namespace Wordd {

namespace {

Descriptor blockAndWatch(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (int const signal : signals)
    sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  return Descriptor(checked(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC), "signalfd"));
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
