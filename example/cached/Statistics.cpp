#include <fmt/core.h>
#include <unistd.h>

#include "Brelo/TaskSchedulerQueueStats.h"
#include "Brelo/Time.h"
#include "Server.h"

namespace Cached {

std::string Server::statistics() const {
  std::uint64_t runs = 0;
  for (auto const& [priority, stats] : scheduler.queueStatsRoot())
    runs += stats.totalRunCount;
  std::string text;
  auto const say = [&text](char const* name, auto value) {
    text += fmt::format("STAT {} {}\r\n", name, value);
  };
  say("pid", ::getpid());
  say("uptime", static_cast<std::int64_t>(Brelo::time() - start));
  say("time", static_cast<std::int64_t>(Brelo::time()));
  say("version", CACHED_VERSION);
  say("curr_connections", connections);
  say("total_connections", total.connections);
  say("cmd_get", total.gets);
  say("cmd_set", total.sets);
  say("get_hits", total.hits);
  say("get_misses", total.gets - total.hits);
  say("bytes", cache.bytes);
  say("limit_maxbytes", cache.limit);
  say("curr_items", cache.items);
  say("total_items", cache.stored);
  say("evictions", cache.evicted);
  say("brelo_runs", runs);
  say("brelo_max_slip_us", scheduler.maxSchedulerSlip().count() / 1000);
  return text + "END\r\n";
}

}  // namespace Cached
