#include "Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <utility>

#include "Checked.h"

namespace Wordd {

namespace {

constexpr std::size_t waitingMax = 1 << 20;
constexpr double patience = 1;  // seconds

/// Others, a shell for instance, may have the same open file and want it blocking: where we can
/// open it anew, the mode is ours alone.
Descriptor openOutput() {
  int const fd = ::open("/proc/self/fd/1", O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  return Descriptor(
      fd >= 0 ? fd : checked(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0), "standard output"));
}

}  // namespace

Output::Output(std::shared_ptr<Brelo::TaskScheduler> const& scheduler)
    : FileDescriptorTask(scheduler, Brelo::TaskPriority::normal, "output"),
      output_(openOutput()),
      limit_(std::make_shared<Timeout>(scheduler, "output:limit", [this] { end(); })) {
  taskWatchReadableIs(false);
  taskWatchFdIs(output_.get());
}

Output::~Output() {
  taskWatchFdDel();
}

void Output::print(std::string_view text) {
  if (waiting_.size() >= waitingMax) return;
  waiting_ += text;
  scheduleTaskWritable();
}

void Output::taskExecuteWritable() {
  try {
    writeSome();
    if (!waiting_.empty()) taskWatchWritableIs(true);
  } catch (std::exception const&) {
    waiting_.clear();  // the kernel refuses the watch
  }
  if (waiting_.empty() && finished_) end();
}

void Output::writeSome() {
  ssize_t const written = ::write(output_.get(), waiting_.data(), waiting_.size());
  if (written >= 0) {
    waiting_.erase(0, static_cast<std::size_t>(written));
  } else if (!isPassing(errno)) {
    waiting_.clear();
  }
}

void Output::finish(std::function<void()> finished) {
  finished_ = std::move(finished);
  limit_->scheduleTaskDelay(waiting_.empty() ? 0 : patience);
}

void Output::end() {
  auto const finished = std::exchange(finished_, {});
  finished();
}

}  // namespace Wordd
