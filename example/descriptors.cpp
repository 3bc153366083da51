// A TCP server on the loopback address that sends all clients back what they send. It meets what a
// daemon meets: short writes, clients that are slow or vanish, no descriptors left.
//
//   build/release/example/descriptors PORT   serves until it is killed; try wordd-client PORT
//   build/release/example/descriptors        serves one client of its own, and ends
#include <arpa/inet.h>
#include <err.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <set>
#include <string>

#include "Brelo/FileDescriptorTask.h"
#include "Brelo/TaskSchedulerRoot.h"

/// Closes a task's descriptor. A base ahead of the task's, so that the watch ends first.
struct OwnedFd {
  int const fd;
  ~OwnedFd() { ::close(fd); }
};

/// One client. Nothing is read while something waits to be sent: a slow client costs one buffer.
class Session : OwnedFd, public Brelo::FileDescriptorTask {
 public:
  using Sessions = std::set<std::shared_ptr<_TaskBase>>;
  Session(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, int client, Sessions& sessions)
      : OwnedFd{client},
        FileDescriptorTask(scheduler, Brelo::TaskPriority::normal, "session"),
        sessions_(sessions) {
    taskWatchFdIs(fd);  // becomes non-blocking; reads are watched from here on
  }

  // One read a run, so that all clients get their turn: what is left makes it readable again.
  void taskExecuteReadable() override {
    char buffer[16 << 10];
    ssize_t const got = ::recv(fd, buffer, sizeof buffer, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (got <= 0) return end();
    unsent_.assign(buffer, static_cast<std::size_t>(got));
    taskExecuteWritable();  // at once: as a rule there is room
  }
  void taskExecuteWritable() override {
    ssize_t const sent = ::send(fd, unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno != EAGAIN && errno != EINTR) return end();
    if (sent > 0) unsent_.erase(0, static_cast<std::size_t>(sent));
    taskWatchReadableIs(unsent_.empty());
    if (!unsent_.empty()) taskWatchWritableIs(true);  // for one run, when there is room
  }

 private:
  void end() { sessions_.erase(shared_from_this()); }
  Sessions& sessions_;
  std::string unsent_;
};

/// Takes clients and owns their sessions. With `once` it takes one client and no more.
class Listener : OwnedFd, public Brelo::FileDescriptorTask, Brelo::Platform::TimeoutHandler {
 public:
  Listener(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, int listening, bool once)
      : OwnedFd{listening},
        FileDescriptorTask(scheduler, Brelo::TaskPriority::normal, "listener"),
        once_(once) {
    taskWatchFdIs(fd);
  }

  void taskExecuteReadable() override {
    int const client = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0) {
      sessions_.insert(std::make_shared<Session>(taskScheduler(), client, sessions_));
      taskWatchReadableIs(!once_);
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      taskWatchReadableIs(false);  // the client stays in the queue: without a pause we would spin
      pause_->setTimeout(0.1);
    }  // anything else is EAGAIN, EINTR or a client that has gone
  }
  void taskExecuteWritable() override {}
  void timeout() override { taskWatchReadableIs(true); }

 private:
  bool const once_;
  std::shared_ptr<Brelo::Platform::TimerControl> pause_ = Brelo::Platform::getTimerControl(this);
  Session::Sessions sessions_;
};

int checked(long result) {
  if (result < 0) ::err(1, "a system call failed");
  return static_cast<int>(result);
}

int main(int argc, char** argv) {
  int const port = argc < 2 ? 0 : std::atoi(argv[1]);
  sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
  auto* const name = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  int const on = 1, fd = checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  checked(::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on));
  checked(::bind(fd, name, size));
  checked(::listen(fd, SOMAXCONN));
  checked(::getsockname(fd, name, &size));  // the port that the kernel chose
  auto const listener = std::make_shared<Listener>(Brelo::schedulerRootBrelo(), fd, port == 0);
  std::string const lines = "one line\nanother line\nthe last line\n";
  OwnedFd const client{checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))};
  if (port == 0) {  // the kernel takes these before anybody serves them
    checked(::connect(client.fd, name, size));
    checked(::send(client.fd, lines.data(), lines.size(), MSG_NOSIGNAL));
    checked(::shutdown(client.fd, SHUT_WR));
  }
  Brelo::Platform::doEventLoop();
  std::string echo(lines.size(), ' ');
  checked(::recv(client.fd, echo.data(), echo.size(), MSG_WAITALL));
  std::cout << "this came back:\n" << echo;
  return echo == lines ? 0 : 1;
}
