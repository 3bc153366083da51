#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Brelo/Export.h"
#include "Brelo/TaskPriority.h"
#include "BreloDaemon/Addresses.h"
#include "BreloDaemon/Stream.h"

namespace BreloDaemon {

/// How a listener listens, and what its streams are called.
struct ListenerOptions {
  /// Of the streams' tasks and their group; with ":accept" that of the task that accepts.
  std::string name = "client";
  Brelo::TaskPriority priority = Brelo::TaskPriority::normal;  ///< of these
  /// How many connections the kernel keeps for us; it has a bound of its own.
  int backlog = 4096;
  /// Lets several processes listen at one TCP address; the kernel deals connections out.
  bool reusePort = false;
  /// At so many connections no more are accepted until one ends; they wait in the backlog.
  std::size_t connectionsMax = std::numeric_limits<std::size_t>::max();
  /// The rights of a Unix socket's file, from its first moment; as the umask says unless given.
  std::optional<mode_t> unixMode = std::nullopt;
  /// How long the streams together, or the task that accepts, keep the loop before it looks at
  /// everything else: up to a second.
  std::chrono::nanoseconds quantum = std::chrono::milliseconds(2);
};

/// Accepts connections, and owns them as streams until they end.
///
/// Its streams are in a task group of their own: they share its quantum, so that hundreds of them
/// cost little each, and compete with the rest of the program as one task. A run accepts within
/// its quantum. Where descriptors or memory run out it stops for 100 ms, or until a stream ends.
///
/// A step of the orderly end: it refuses new connections, then closes its streams (see `onStop`),
/// and is done when none is left. Belongs to the scheduler's thread. May be destroyed from
/// callbacks of its own and of its streams; that ends all of them at once, those that nobody else
/// holds without a callback.
class BRELO_EXPORT Listener {
 public:
  /// Is given a stream of this listener, which owns it.
  using StreamHandler = std::function<void(Stream& client)>;

  /// Listens from here on, at all of the addresses. `onStream` is called for each connection in its
  /// first run: to give it its handlers. What it throws ends the stream. TCP connections send
  /// without delay.
  ///
  /// A socket file that nobody listens at is replaced; any other file at its path stays, and is an
  /// error, as a link is. At the end the file is removed if it is still the one made here. The
  /// directory is locked (`flock`) meanwhile, so that of two that start one gets the path. What
  /// fails throws `std::system_error`, with the address in its text.
  Listener(std::shared_ptr<Brelo::TaskScheduler> scheduler, Addresses const& addresses,
           StreamHandler onStream, ListenerOptions const& options = {});
  Listener(Listener const&) = delete;
  Listener& operator=(Listener const&) = delete;
  ~Listener();

  /// What was bound, with the ports that the kernel chose; after the end of accepting, too.
  std::vector<std::string> const& addresses() const;
  int port() const;                 ///< the first one of TCP, or 0
  std::size_t connections() const;  ///< streams that have not ended

  /// Closes the listening sockets, for good; the streams go on.
  void stopAccepting();
  /// The orderly end: `stopAccepting()`, and every stream is closed after what it still sends.
  void close();
  /// What the orderly end does to each stream in place of `Stream::close()`.
  void onStop(StreamHandler stop);

 private:
  class Core;

  std::shared_ptr<Core> core_;
};

}  // namespace BreloDaemon
