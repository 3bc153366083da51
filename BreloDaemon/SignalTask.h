#pragma once

#include <sys/signalfd.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>

#include "Brelo/Export.h"
#include "Brelo/TaskPriority.h"

namespace Brelo {
class TaskScheduler;
}

namespace BreloDaemon {

namespace Impl {
class SignalTaskInner;
}

/// Turns signals into runs: they arrive between two tasks, like everything else, and not in the
/// middle of one.
///
/// Blocks its signals in the calling thread for its lifetime, as far as they are not blocked
/// already, and in the threads that this one starts meanwhile; so make it before any other thread,
/// or a thread that does not block a signal may be given it. Where several on one thread want the
/// same signal, each occurrence goes to one of them, and the signal stays blocked until the last
/// has ended. As ever, a standard signal that comes again before it was handled is one signal, and
/// `SIGKILL` and `SIGSTOP` cannot be had.
///
/// A child made by `fork()` has the mask of before, so that a program it executes can be
/// terminated; what the parent has of this is of no use in it. `posix_spawn()`, and with it
/// `system()` and `popen()`, know nothing of that: their children have these signals blocked.
/// ChildTask starts its own with a clean mask.
///
/// Belongs to the scheduler's thread. It keeps the loop running until it ends, or is stopped (see
/// StopStep).
class BRELO_EXPORT SignalTask {
 public:
  /// May destroy the task. What it throws goes on to the scheduler; the next signal is delivered
  /// all the same.
  using Handler = std::function<void(signalfd_siginfo const& signal)>;

  /// Throws `std::system_error`, with the mask as it was.
  SignalTask(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
             std::string name, std::initializer_list<int> signals, Handler handler);
  SignalTask(SignalTask const&) = delete;
  SignalTask& operator=(SignalTask const&) = delete;
  /// What has come and was not delivered is dropped.
  ~SignalTask();

 private:
  std::shared_ptr<Impl::SignalTaskInner> inner_;
};

}  // namespace BreloDaemon
