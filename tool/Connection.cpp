#include "Connection.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include "Failure.h"
#include "Text.h"

namespace Tool {

namespace {

std::string errorText(int error) {
  return ::strerror(error);
}

/// What to do about a connection that has not come about.
std::string connectHint(std::string const& path, int error) {
  struct stat status;
  if (error == ECONNREFUSED && ::stat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode)) {
    return "this is not a socket; give the path at which the daemon answers";
  }
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return "there is no such socket; see whether the daemon runs and answers at this path";
    case ECONNREFUSED:
      return "nobody listens at this socket; see whether the daemon runs";
    case EACCES:
    case EPERM:
      return "access is denied; run as the daemon's user";
    case EAGAIN:
      return "the daemon does not accept connections; see whether it hangs";
    default:
      return "cannot connect: " + errorText(error);
  }
}

}  // namespace

Connection::Connection(std::string path, Limits limits)
    : path_(std::move(path)), limits_(limits), answers_(limits.bytes) {
  if (path_.empty() || path_.size() >= sizeof(sockaddr_un::sun_path)) {
    throw Failure("the path of a socket has 1 to 107 bytes: \"" + printable(path_) + "\"",
                  ExitCode::usage);
  }
  connect();
  unsent_ = "framed\n";
}

void Connection::fail(std::string const& text) const {
  throw Failure(printable(path_) + ": " + text);
}

// A full backlog makes a connection wait, for which poll() does not help: the socket's time to send
// bounds it.
void Connection::connect() {
  bool const waits = limits_.connect.count() > 0;
  descriptor_ =
      Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (waits ? 0 : SOCK_NONBLOCK), 0));
  if (!descriptor_) fail("cannot make a socket: " + errorText(errno));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, sizeof address.sun_path - 1);
  timeval limit{};
  limit.tv_sec = limits_.connect.count() / 1000;
  limit.tv_usec = limits_.connect.count() % 1000 * 1000;
  if ((waits && ::setsockopt(descriptor(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) ||
      ::connect(descriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::fcntl(descriptor(), F_SETFL, O_NONBLOCK) != 0) {
    fail(connectHint(path_, errno));
  }
}

std::string Connection::ask(std::string_view request) {
  send(request);
  Answer answer = wait();
  if (answer.error) fail(printable(*answer.error));
  return std::move(answer.text);
}

Answer Connection::wait() {
  for (;;) {
    if (auto answer = advance()) return *std::move(answer);
    using std::chrono::milliseconds;
    auto const left = std::chrono::duration_cast<milliseconds>(deadline() - Clock::now());
    pollfd polled{descriptor(), events(), 0};
    int const waited =
        ::poll(&polled, 1, static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60'000)) + 1);
    if (waited < 0 && errno != EINTR) fail("cannot wait for the answer: " + errorText(errno));
  }
}

void Connection::send(std::string_view request) {
  if (outstanding_++ == 0) waitingSince_ = Clock::now();
  unsent_.append(request).append("\n");
  sendSome();
}

short Connection::events() const {
  return static_cast<short>(unsent_.empty() ? POLLIN : POLLIN | POLLOUT);
}

Connection::Clock::time_point Connection::deadline() const {
  return outstanding_ == 0 ? Clock::time_point::max() : waitingSince_ + limits_.answer;
}

std::optional<Answer> Connection::advance() {
  std::optional<Answer> answer = answers_.take();
  if (!answer) {
    sendSome();
    receiveSome();
    answer = answers_.take();
  }
  if (answer) {
    if (outstanding_ == 0) fail("it answers what it was not asked");
    --outstanding_;
    waitingSince_ = Clock::now();
  } else if (ended_) {
    fail("the daemon has closed the connection; see whether it still runs");
  } else if (Clock::now() >= deadline()) {
    fail("no answer for " + lengthText(static_cast<double>(limits_.answer.count()) / 1e3) +
         "; see whether the daemon hangs");
  }
  return answer;
}

// A daemon that has closed has perhaps told why: that is read.
void Connection::sendSome() {
  while (!unsent_.empty()) {
    ssize_t const sent = ::send(descriptor(), unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      unsent_.erase(0, static_cast<std::size_t>(sent));
    } else if (errno == EPIPE || errno == ECONNRESET) {
      unsent_.clear();
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != EINTR) {
      fail("cannot send the request: " + errorText(errno));
    }
  }
}

// At most so much at a time that the deadline is seen amid a flood.
void Connection::receiveSome() {
  char buffer[std::size_t{1} << 16];
  for (int i = 0; i < 16; ++i) {
    ssize_t const received = ::recv(descriptor(), buffer, sizeof buffer, 0);
    if (received > 0) {
      try {
        answers_.feed({buffer, static_cast<std::size_t>(received)});
      } catch (Failure const& failure) {
        fail(failure.what());
      }
    } else if (received == 0 || errno == ECONNRESET) {
      ended_ = true;
      return;
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != EINTR) {
      fail("cannot receive the answer: " + errorText(errno));
    }
  }
}

}  // namespace Tool
