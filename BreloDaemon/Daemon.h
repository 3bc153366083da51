#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Brelo/Export.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "BreloDaemon/ServiceNotify.h"

namespace BreloDaemon {

/// How a daemon begins and ends.
struct DaemonOptions {
  /// What begins the orderly end, with status 0. A second one, more than 50 ms after
  /// it, ends it at once.
  std::vector<int> stopSignals = {15, 2};  // SIGTERM, SIGINT
  /// How long the orderly end may take; more than 0. A service manager has a limit of its own.
  std::chrono::nanoseconds stopLimit = std::chrono::seconds(10);
  /// Whether `run()` tells the service manager that the daemon is ready, or the program will.
  bool readyAtRun = true;
  /// Of the task that feeds the service manager's watchdog, if there is one.
  Brelo::TaskPriority watchdogPriority = Brelo::TaskPriority::normal;
};

/// The frame of a daemon's `main`: a scheduler, its loop, and an orderly end.
///
/// Made first in `main`, before any thread and before everything that uses its scheduler: it opens
/// /dev/null in place of standard descriptors that are closed, ignores SIGPIPE, and takes the
/// signals that end the process. One on a thread at a time, which chooses its backend before; a
/// second one is an assertion. The service manager, where there is one, hears that the daemon is
/// ready, that it is stopping, and the signs of life that it asks for.
///
///     int main() {
///       BreloDaemon::Daemon daemon("echo");
///       ...
///       return daemon.run();
///     }
///
/// The orderly end is a sequence of steps, see StopStep: what the kit has made, and what `onStop`
/// has added, in the reverse order of making. Then the loop goes on for as long as anything else
/// waits. Beyond the limit, what has not let go is said on standard error, as `pendingRender` has
/// it, and the loop is left.
///
/// What a task lets pass is said on standard error, with the task's name, and the task can run
/// again; what a handler of the platform lets pass likewise. More than 100 of these within a second
/// are no passing trouble: they begin the orderly end, with status 1. Where standard error takes
/// nothing at the moment, what is said there is lost: it holds nobody up.
class BRELO_EXPORT Daemon {
 public:
  /// `name` is that of the scheduler, and begins what is said on standard error. Throws
  /// `std::system_error` if a descriptor, or a watch, is refused.
  explicit Daemon(std::string name, DaemonOptions options = {});
  Daemon(Daemon const&) = delete;
  Daemon& operator=(Daemon const&) = delete;
  ~Daemon();

  std::string const& name() const;  ///< as given
  /// The root of all tasks of the daemon.
  std::shared_ptr<Brelo::TaskSchedulerRoot> const& scheduler() const;

  /// The service manager, for a reload, a status line, or more time.
  ServiceNotify& service() const;

  /// Runs the loop until the end has been reached; returns the exit status: that of `stop`, 0 for
  /// a signal, 1 when the end took longer than it may. Once.
  int run();
  /// Begins the orderly end. From a handler, a task, or before `run()`. A second call raises the
  /// status, if it is larger, and nothing else.
  void stop(int status = 0);
  bool stopping() const;  ///< the end has begun

  /// Called as a step of the orderly end, after those of everything that was made later.
  void onStop(std::string name, std::function<void()> step);
  /// Called between two tasks when the signal has come; see SignalTask. From the beginning of the
  /// end on it is ignored. A signal that ends the daemon is an assertion.
  void onSignal(int signal, std::function<void()> handler);
  /// Asked instead of what is described above, inside the catch block, with the task, or null for a
  /// handler of the platform. False begins the orderly end, with status 1.
  void exceptionHandlerIs(std::function<bool(Brelo::_TaskBase* task)> handler);

 private:
  class Frame;

  std::unique_ptr<Frame> frame_;
};

}  // namespace BreloDaemon
