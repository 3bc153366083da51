#include "BreloDaemon/internal/ChildStart.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "BreloDaemon/internal/AllSignalsBlocked.h"
#include "BreloDaemon/internal/ChildImage.h"

/// The C library's `clone` by its other name, which the thread sanitizer leaves alone: in place of
/// the first it has one that takes the memory for the child's own.
extern "C" int __clone(int (*run)(void*), void* stack, int flags, void* argument, ...) noexcept;

namespace BreloDaemon::Impl {

namespace {

using Standard = ChildProgram::Standard;

constexpr std::size_t stackSize = (64 << 10) / sizeof(std::max_align_t);
constexpr int reapMilliseconds = 10;

[[noreturn]] void fail(int error, ChildProgram const& program, char const* what) {
  throw std::system_error(error, std::generic_category(),
                          "failed to start " + program.path + ", to " + what);
}

/// The child's standard descriptors that are made for it.
struct StandardEnds {
  StandardEnds(ChildProgram const& program, std::array<Descriptor, 3>& ours) {
    std::array<Standard, 3> const wanted{program.input, program.output, program.errors};
    for (std::size_t i = 0; i < wanted.size(); ++i) {
      int const number = static_cast<int>(i);
      if (program.descriptors.count(number) != 0 || wanted[i] == Standard::inherited) continue;
      if (wanted[i] == Standard::null) {
        childs[i].reset(::open("/dev/null", O_RDWR | O_CLOEXEC));
        if (!childs[i]) fail(errno, program, "open /dev/null");
        continue;
      }
      int ends[2];
      if (::pipe2(ends, O_CLOEXEC) != 0) fail(errno, program, "make a pipe");
      childs[i].reset(ends[i == 0 ? 0 : 1]);
      ours[i].reset(ends[i == 0 ? 1 : 0]);
      ::fcntl(ours[i].get(), F_SETFL, O_NONBLOCK);
    }
  }

  std::array<Descriptor, 3> childs;
};

bool endsWithin(int milliseconds, int pidfd) {
  pollfd end{pidfd, POLLIN, 0};
  return ::poll(&end, 1, milliseconds) == 1;
}

void waitFor(int pidfd) {
  while (!endsWithin(-1, pidfd)) {
  }
  siginfo_t info;
  while (::waitid(P_PIDFD, static_cast<id_t>(pidfd), &info, WEXITED) != 0 && errno == EINTR) {
  }
}

}  // namespace

StartedChild startChild(ChildProgram const& program) {
  StartedChild started;
  StandardEnds const standard(program, started.pipes);
  std::map<int, int> descriptors;
  for (std::size_t i = 0; i < standard.childs.size(); ++i)
    if (standard.childs[i]) descriptors[static_cast<int>(i)] = standard.childs[i].get();
  for (auto const& [number, descriptor] : program.descriptors)
    descriptors[number] = descriptor.get();
  ChildImage image(program, descriptors);
  std::unique_ptr<std::max_align_t[]> const stack(new std::max_align_t[stackSize]);

  int pidfd = -1;
  {
    // No handler of this process is to run in the child.
    AllSignalsBlocked const meanwhile;
    started.pid = ::__clone(becomeProgram, stack.get() + stackSize,
                            CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD,
                            static_cast<void*>(&image), &pidfd);
  }
  if (started.pid < 0) fail(errno, program, "make a process");
  started.pidfd.reset(pidfd);
  if (image.failed != nullptr) {
    waitFor(pidfd);
    fail(image.error, program, image.failed);
  }
  return started;
}

void reapKilled(Descriptor pidfd) noexcept {
  if (endsWithin(reapMilliseconds, pidfd.get())) return waitFor(pidfd.get());
  try {
    AllSignalsBlocked const inherited;
    std::thread([fd = pidfd.get()] {
      waitFor(fd);
      ::close(fd);
    }).detach();
    pidfd.release();
  } catch (...) {
    waitFor(pidfd.get());
  }
}

}  // namespace BreloDaemon::Impl
