#pragma once

#include <signal.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Brelo/Export.h"

namespace Brelo {
class TaskSchedulerRoot;
}

namespace BreloObserve {

/// What a StallDetector goes by. Limits of zero or less, and no stacks, are assertions.
struct StallDetectorOptions {
  /// A run that goes on for longer is a stall.
  std::chrono::nanoseconds limit = std::chrono::milliseconds(100);
  /// One that goes on for so long is told of while it lasts, and again at twice the time each.
  std::chrono::nanoseconds lasting = std::chrono::seconds(1);
  /// Interrupts the loop's thread, and has a handler from here on until the process ends.
  int signal = SIGRTMIN + 5;
  unsigned reportsPerMinuteMax = 10;  ///< more are counted only
  std::size_t stacksMax = 32;         ///< different stacks that are kept
};

/// A call on a stack.
struct StallFrame {
  std::string module;      ///< the path of the program or library, empty if it is in none
  std::uintptr_t offset;   ///< in the module, as `addr2line -e MODULE OFFSET` takes it
  std::string function;    ///< demangled, empty if the module does not tell
  std::uintptr_t address;  ///< in the process; of a caller the last byte of its call
};

/// A run that held the loop.
struct Stall {
  std::string group;  ///< the name of the task's scheduler
  std::string name;   ///< the task's stats name
  std::chrono::steady_clock::time_point
      started;                      ///< the run, or its part in which nothing else ran
  std::chrono::nanoseconds length;  ///< of that
  std::chrono::nanoseconds cpu;     ///< of that, the thread's CPU time
  std::vector<StallFrame> frames;   ///< innermost first, when it was caught
};

/// Catches runs of a root's tree that hold its loop for longer than a limit, while they do, with
/// the stack of the loop's thread.
///
/// A watcher, a thread of its own, looks at the time of the innermost run, and at the limit sends
/// the loop's thread a signal, whose handler takes the stack without locks or allocations. The
/// stall is told of when the run ends: in a run of a task of this object, by trace level 1 of
/// "BreloObserve" and to a callback, once for each different chain of functions. One that does not
/// end is told of on standard error, by the watcher. The time is that of the monotonic clock, under
/// virtual time too; time for which the process was stopped is no reason to catch a run.
///
/// Belongs to the root's thread, on which the signal is unblocked, and may end amid any run, a
/// stalled one and its own callback included. Any number, on any threads. A forked child has no
/// watcher: there it catches nothing, and keeps what it had.
class BRELO_EXPORT StallDetector {
 public:
  /// Throws `std::system_error` if the signal cannot have a handler, or no thread can be started.
  explicit StallDetector(std::shared_ptr<Brelo::TaskSchedulerRoot> root,
                         StallDetectorOptions options = {});
  StallDetector(StallDetector const&) = delete;
  StallDetector& operator=(StallDetector const&) = delete;
  ~StallDetector();

  /// Who is told from here on; empty for nobody. It may do anything; what it throws goes on to the
  /// scheduler.
  void onStall(std::function<void(Stall const& stall)> callback);
  /// The JSON document *stalls*, see doc/observe/protocol.md.
  std::string document() const;
  std::uint64_t caught() const;  ///< stalls since the construction

 private:
  class Core;

  std::unique_ptr<Core> core_;
};

}  // namespace BreloObserve
