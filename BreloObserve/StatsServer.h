#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "Brelo/Export.h"
#include "Brelo/TaskPriority.h"

namespace Brelo {
class TaskSchedulerRoot;
}

namespace BreloObserve {

class Monitor;
class StallDetector;

/// What a statistics server tells, to whom, and how much of it.
struct StatsServerOptions {
  /// Who counts runs and who catches stalls, on the same root and at least as long. Without them
  /// the server makes its own, if it may.
  /// @{
  Monitor* monitor = nullptr;
  bool makesMonitor = true;
  StallDetector* stallDetector = nullptr;
  bool makesStallDetector = true;
  /// @}
  /// The rights of the socket's file, from its first moment, and its owner and group; as the
  /// process has them unless given.
  /// @{
  mode_t unixMode = 0600;
  std::optional<uid_t> owner = std::nullopt;
  std::optional<gid_t> group = std::nullopt;
  /// @}
  /// Clients at a time. One more is told so and dropped, unless one of them has asked nothing for
  /// `silentLimit`: then the one that has for longest is.
  /// @{
  std::size_t clientsMax = 16;
  std::chrono::nanoseconds silentLimit = std::chrono::seconds(10);
  /// @}
  /// A client that takes nothing for so long, while something is sent to it, is dropped. More than
  /// zero.
  std::chrono::nanoseconds sendLimit = std::chrono::seconds(10);
  /// Of the tasks that make and send answers.
  Brelo::TaskPriority priority = Brelo::TaskPriority::normal;
  /// Whether clients may change what is traced. That changes the process's environment, which no
  /// other thread may read meanwhile.
  bool traceChanges = true;
};

/// Tells those who ask at a Unix socket what a tree of schedulers is doing.
///
///     BreloDaemon::Daemon daemon("cached");
///     BreloObserve::StatsServer stats(daemon.scheduler(), "/run/cached/stats.sock");
///
/// Requests are lines, answers documents: `brelo` asks, and so does a shell, see
/// doc/observe/protocol.md. Its own monitor and stall detector are as those are by default. Answers
/// are made in a task of its own, one in a run, and sent as the client takes them. One that does
/// not read holds up nobody, and is not read from while much is waiting for it.
///
/// Belongs to the root's thread, where its descriptors keep the loop running; in the orderly end
/// of a daemon its clients get what has been made for them, and a second for that. The process has
/// to ignore SIGPIPE, which a `BreloDaemon::Daemon` sees to.
class BRELO_EXPORT StatsServer {
 public:
  /// `address` is the path of a socket file, with a slash in it or "unix:" before it; or "systemd"
  /// or "systemd:NAME" for a Unix socket that the service manager hands over, whose rights are the
  /// unit's affair. A dead socket's file is replaced. What fails throws `std::system_error`.
  StatsServer(std::shared_ptr<Brelo::TaskSchedulerRoot> root, std::string const& address,
              StatsServerOptions const& options = {});
  StatsServer(StatsServer const&) = delete;
  StatsServer& operator=(StatsServer const&) = delete;
  ~StatsServer();

  std::string const& address() const;  ///< what was bound
  std::size_t clients() const;         ///< that are served

 private:
  class Core;

  std::unique_ptr<Core> core_;
};

}  // namespace BreloObserve
