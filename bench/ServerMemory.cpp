// The heap that a server takes for a connection on which nothing happens.

#include "ServerMemory.h"

#include <malloc.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace Bench {

namespace {

void check(bool good, char const* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

/// Descriptors that never become readable, and the server's end of a connection with a request.
class IdleConnections {
 public:
  explicit IdleConnections(std::size_t count) {
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends_.data()) == 0,
          "socketpair");
    fds_.push_back(ends_[0]);
    check(send(ends_[1], "x", 1, MSG_NOSIGNAL) == 1, "send");
    for (std::size_t i = 0; i < count; ++i) {
      fds_.push_back(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
      check(fds_.back() >= 0, "eventfd");
    }
  }
  IdleConnections(IdleConnections const&) = delete;
  IdleConnections& operator=(IdleConnections const&) = delete;
  ~IdleConnections() {
    close(ends_[1]);
    for (int const fd : fds_)
      close(fd);
  }

  std::vector<int> const& fds() const { return fds_; }

 private:
  std::array<int, 2> ends_;
  std::vector<int> fds_;
};

double heapBytes() {
  struct mallinfo2 const now = mallinfo2();
  return static_cast<double>(now.uordblks + now.hblkhd);
}

/// From the server's start to its first answer, when all connections are being watched.
double heapOfServer(Server const& serve, std::size_t idleConnections) {
  IdleConnections const connections(idleConnections);
  double const before = heapBytes();
  double taken = -1;
  Requests requests(1, 1, [&] {
    taken = heapBytes() - before;
    return false;
  });
  serve(connections.fds(), requests);
  if (taken < 0) throw std::runtime_error("server: no figure of its memory");
  return taken;
}

}  // namespace

double bytesOfIdleConnection(Server const& serve, std::size_t count) {
  double const none = heapOfServer(serve, 0);
  return (heapOfServer(serve, count) - none) / static_cast<double>(count);
}

}  // namespace Bench
