#pragma once

#include <cstdint>
#include <string>

#include "Brelo/TaskSchedulerRoot.h"
#include "BreloDaemon/Stream.h"
#include "Cache.h"

namespace Cached {

/// What all clients share.
struct Server {
  /// Answers the commands of a client, which must not outlive the server.
  void serve(BreloDaemon::Stream& client);
  std::string statistics() const;  ///< the answer to "stats"
  void resetStatistics() {
    total = {};
    cache.stored = cache.evicted = 0;
  }

  Brelo::TaskSchedulerRoot const& scheduler;
  Cache cache;
  double start;
  std::uint64_t connections = 0;
  struct {
    std::uint64_t connections = 0, gets = 0, hits = 0, sets = 0;
  } total = {};
};

}  // namespace Cached
