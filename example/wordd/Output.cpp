#include "Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <system_error>

namespace Wordd {

namespace {

using namespace std::chrono_literals;
using BreloDaemon::Descriptor;

constexpr std::size_t waitingMax = 1 << 20;

/// Others, a shell for instance, may have the same open file and want it blocking: where we can
/// open it anew, the mode is ours alone.
Descriptor openOutput() {
  Descriptor output(
      ::open("/proc/self/fd/1", O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!output) output.reset(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
  if (!output) throw std::system_error(errno, std::generic_category(), "standard output");
  return output;
}

}  // namespace

Output::Output(std::shared_ptr<Brelo::TaskScheduler> const& scheduler)
    : stream_(std::make_shared<BreloDaemon::Stream>(scheduler, Brelo::TaskPriority::normal,
                                                    "output", openOutput())),
      stop_("output", nullptr, [this] { finish(); }) {}

void Output::print(std::string_view text) {
  if (stream_->unsent() < waitingMax) stream_->send(text);
}

void Output::finish() {
  if (stream_->ended()) return stop_.done();
  stream_->onEnd([this](auto...) { stop_.done(); });
  stream_->idleLimitIs(1s);
  stream_->close();
}

}  // namespace Wordd
