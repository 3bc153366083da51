#include "StatsServer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace Wordd {

namespace {

Descriptor listenOnPath(std::string const& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
  }
  path.copy(address.sun_path, path.size());
  Descriptor socket(
      checked(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket"));
  ::unlink(path.c_str());  // left behind by one that was killed
  checked(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address),
          path.c_str());
  checked(::listen(socket.get(), SOMAXCONN), "listen");
  return socket;
}

}  // namespace

StatsServer::StatsServer(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, std::string path)
    : Acceptor(scheduler, "stats", listenOnPath(path)), path_(std::move(path)) {}

StatsServer::~StatsServer() {
  // An export keeps its scheduler, and the process, until its reader has read or gone.
  for (int const descriptor : *exports_)
    ::shutdown(descriptor, SHUT_RDWR);
  ::unlink(path_.c_str());
}

void StatsServer::accepted(Descriptor socket) {
  auto const snapshot = taskScheduler()->snapshot("", true, true, true,
                                                  Brelo::TaskSchedulerSnapshot::displayOrderUnset);
  int const descriptor = socket.release();
  exports_->insert(descriptor);
  taskScheduler()->snapshotRenderJsonAsync(
      descriptor, {snapshot}, [exports = exports_, descriptor] { exports->erase(descriptor); });
}

}  // namespace Wordd
