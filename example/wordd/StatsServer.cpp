#include "StatsServer.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <utility>

#include "Checked.h"

namespace Wordd {

StatsServer::StatsServer(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, SocketFile file,
                         double secondsToRead)
    : Acceptor(scheduler, "stats", file.takeSocket()),
      file_(std::move(file)),
      secondsToRead_(secondsToRead) {}

StatsServer::~StatsServer() {
  // An export keeps its scheduler, and the process, until its reader has read or gone.
  for (auto const& [number, reader] : readers_)
    ::shutdown(reader.socket.get(), SHUT_RDWR);
}

void StatsServer::accepted(Descriptor socket) {
  Descriptor handle(checked(::fcntl(socket.get(), F_DUPFD_CLOEXEC, 0), "fcntl"));
  auto limit = std::make_shared<Timeout>(taskScheduler(), "stats:limit",
                                         [fd = handle.get()] { ::shutdown(fd, SHUT_RDWR); });
  limit->scheduleTaskDelay(secondsToRead_);

  std::uint64_t const number = ++accepted_;
  readers_.emplace(number, Reader{std::move(handle), std::move(limit)});
  try {
    auto const snapshot = taskScheduler()->snapshot(
        "", true, true, true, Brelo::TaskSchedulerSnapshot::displayOrderUnset);
    taskScheduler()->snapshotRenderJsonAsync(socket.get(), {snapshot},
                                             [this, alive = weak_from_this(), number] {
                                               if (!alive.expired()) ended(number);
                                             });
  } catch (...) {
    readers_.erase(number);
    throw;
  }
  socket.release();  // the export's
  fullIs(readers_.size() >= readersMax);
}

void StatsServer::ended(std::uint64_t number) {
  readers_.erase(number);
  fullIs(false);
}

}  // namespace Wordd
