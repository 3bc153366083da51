#pragma once

#include <sys/types.h>

#include <array>

#include "BreloDaemon/ChildTask.h"
#include "BreloDaemon/Descriptor.h"

namespace BreloDaemon::Impl {

/// A child that runs its program.
struct StartedChild {
  pid_t pid = -1;
  Descriptor pidfd;
  std::array<Descriptor, 3> pipes;  // this process's ends, by the number of the child's
};

/// Throws `std::system_error`, with nothing left behind. The descriptors of `program` are closed
/// when it goes.
StartedChild startChild(ChildProgram const& program);

/// Waits for the end of the child, killed by now: here for a few milliseconds, and then in a thread
/// of its own.
void reapKilled(Descriptor pidfd) noexcept;

}  // namespace BreloDaemon::Impl
