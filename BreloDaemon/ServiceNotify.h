#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string_view>
#include <system_error>

#include "Brelo/Export.h"
#include "Brelo/TaskPriority.h"

namespace Brelo {
class TaskScheduler;
}

namespace BreloDaemon {

namespace Impl {
class NotifySocket;
class WatchdogTask;
}  // namespace Impl

/// Tells the service manager how the daemon is: one datagram for each call to the socket that it
/// gave in NOTIFY_SOCKET (a path, or "@" and an abstract name). Where it gave none, nothing is
/// done.
///
/// Never waits. Each call gives the error that kept the manager from hearing of it; none if there
/// is no manager. A forked child says nothing. Belongs to one thread.
class BRELO_EXPORT ServiceNotify {
 public:
  /// Takes NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID out of the environment, so that children
  /// do not speak for the daemon; to be made before other threads start, for the environment has no
  /// lock. A program with other rights than its caller reads none of them. Throws
  /// `std::system_error` if one of them cannot be meant, or there is no socket to be had.
  ServiceNotify();
  ServiceNotify(ServiceNotify const&) = delete;
  ServiceNotify& operator=(ServiceNotify const&) = delete;
  ~ServiceNotify();

  /// The manager waits to be told.
  bool active() const { return socket_ != nullptr; }

  std::error_code ready();      ///< at the end of the start, and of a reload
  std::error_code reloading();  ///< at the begin of a reload
  std::error_code stopping();   ///< at the begin of the end
  /// A line for people. The ends of lines in it become blanks.
  std::error_code status(std::string_view text);
  /// The process that is now the daemon, where that is not the one that was started.
  std::error_code mainPidIs(pid_t pid);
  /// Asks for that much time from now, for a start, a reload or an end that takes longer than it
  /// may. Negative is an assertion.
  std::error_code extendTimeout(std::chrono::nanoseconds time);

  /// The longest time that the manager waits for a sign of life before it ends the daemon;
  /// `max()` if it waits for none.
  std::chrono::nanoseconds watchdogTime() const { return watchdogTime_; }
  /// Gives the sign at each half of that time, from a task of the scheduler called "watchdog": a
  /// loop that stalls, or in which `priority` does not get its turn, is then restarted. Does
  /// nothing if none is waited for. It keeps the loop running until it is stopped (see StopStep),
  /// or this ends. The task belongs to the scheduler's thread, and so does this from here on.
  void feedWatchdog(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority);

 private:
  std::error_code send(std::string_view message) const;

  std::shared_ptr<Impl::NotifySocket const> socket_;
  std::chrono::nanoseconds watchdogTime_ = std::chrono::nanoseconds::max();
  std::shared_ptr<Impl::WatchdogTask> watchdog_;
};

}  // namespace BreloDaemon
