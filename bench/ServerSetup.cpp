#include "ServerSetup.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "ServerClient.h"

namespace Bench {

namespace {

void check(bool good, char const* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

std::vector<int> processors() {
  cpu_set_t set;
  check(sched_getaffinity(0, sizeof set, &set) == 0, "sched_getaffinity");
  std::vector<int> numbers;
  for (int i = 0; i < CPU_SETSIZE; ++i) {
    if (CPU_ISSET(i, &set)) numbers.push_back(i);
  }
  return numbers;
}

void bindTo(int processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(processor, &set);
  check(sched_setaffinity(0, sizeof set, &set) == 0, "sched_setaffinity");
}

}  // namespace

Listener::Listener() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  check(fd_ >= 0, "socket");
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  auto* const name = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  timeval const patience{10, 0};
  check(bind(fd_, name, size) == 0, "bind");
  check(listen(fd_, SOMAXCONN) == 0, "listen");
  check(getsockname(fd_, name, &size) == 0, "getsockname");
  check(setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) == 0, "SO_RCVTIMEO");
  port_ = ntohs(address.sin_port);
}

Listener::~Listener() {
  close(fd_);
}

int Listener::accept() const {
  int const fd = accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  int const on = 1;
  linger const reset{1, 0};
  check(fd >= 0, "accept");
  check(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0, "TCP_NODELAY");
  check(setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset) == 0, "SO_LINGER");
  return fd;
}

void Connections::accept(Listener const& listener, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i)
    fds_.push_back(listener.accept());
}

Connections::~Connections() {
  for (int const fd : fds_)
    close(fd);
}

ClientProcess::ClientProcess(std::string role, Listener const& listener, std::size_t number) {
  std::string program = "brelo_bench";
  std::string option = serverClientOption;
  std::string port = std::to_string(listener.port());
  std::string argument = std::to_string(number);
  char* const arguments[] = {program.data(), option.data(),   role.data(),
                             port.data(),    argument.data(), nullptr};
  int ends[2];
  check(pipe2(ends, O_CLOEXEC) == 0, "pipe");
  output_ = ends[0];
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  int const error = posix_spawn(&pid_, "/proc/self/exe", &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  if (error == 0) return;
  close(output_);
  throw std::system_error(error, std::generic_category(), "posix_spawn");
}

ClientProcess::~ClientProcess() {
  kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  close(output_);
}

bool ClientProcess::read(void* data, std::size_t size) const {
  return ::read(output_, data, size) == static_cast<ssize_t>(size);
}

void useFirstProcessor() {
  bindTo(processors().front());
}

void useLastProcessor() {
  bindTo(processors().back());
}

bool mayOpenDescriptors(std::size_t count) {
  rlimit limit;
  check(getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
  if (limit.rlim_cur >= count) return true;
  limit.rlim_cur = count;
  if (limit.rlim_max < count) return false;
  return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

}  // namespace Bench
