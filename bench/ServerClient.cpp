#include "ServerClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <stdexcept>
#include <system_error>

#include "Run.h"
#include "ServerProtocol.h"
#include "ServerSetup.h"

namespace Bench {

namespace {

void check(bool good, char const* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

using Request = std::array<char, requestSize>;

class Client {
 public:
  explicit Client(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    int const on = 1;
    sockaddr_in const server{
        AF_INET, htons(static_cast<in_port_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    check(setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0, "TCP_NODELAY");
    check(connect(fd_, reinterpret_cast<sockaddr const*>(&server), sizeof server) == 0, "connect");
    request_.fill('x');
  }
  Client(Client const&) = delete;
  Client& operator=(Client const&) = delete;
  ~Client() { close(fd_); }

  int fd() const { return fd_; }
  /// These two are false when the server has gone: it ends a run by resetting all connections.
  /// @{
  bool ask() { return send(fd_, request_.data(), request_.size(), MSG_NOSIGNAL) > 0; }
  bool takeAnswer() {
    Request answer;
    ssize_t const length = recv(fd_, answer.data(), answer.size(), MSG_WAITALL);
    if (length <= 0) return false;
    if (answer != request_) throw std::runtime_error("this is not the answer");
    return true;
  }
  /// @}

 private:
  int fd_;
  Request request_;
};

class Clients {
 public:
  Clients(int port, std::size_t count) : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    for (std::size_t i = 0; i < count; ++i) {
      Client& client = clients_.emplace_back(port);
      epoll_event event{EPOLLIN, {&client}};
      check(epoll_ctl(epoll_, EPOLL_CTL_ADD, client.fd(), &event) == 0, "epoll_ctl");
    }
  }
  Clients(Clients const&) = delete;
  Clients& operator=(Clients const&) = delete;
  ~Clients() { close(epoll_); }

  /// These two are false when the server has gone.
  /// @{
  bool askAll() {
    return std::all_of(clients_.begin(), clients_.end(), [](Client& each) { return each.ask(); });
  }
  /// Waits for some answers; `then` is called for each client that got one.
  template <class Then>
  bool takeAnswers(Then then) {
    int const ready = epoll_wait(epoll_, events_.data(), static_cast<int>(events_.size()), -1);
    return std::all_of(events_.begin(), events_.begin() + std::max(ready, 0),
                       [&](epoll_event const& event) {
                         auto& client = *static_cast<Client*>(event.data.ptr);
                         return client.takeAnswer() && then(client);
                       });
  }
  /// @}

 private:
  int epoll_;
  std::deque<Client> clients_;
  std::array<epoll_event, 1024> events_;
};

template <class Value>
void tellServer(Value const& value) {
  check(write(STDOUT_FILENO, &value, sizeof value) == sizeof value, "write");
}

void beBusy(int port, std::size_t count) {
  useLastProcessor();
  Clients clients(port, count);
  clients.askAll();
  while (clients.takeAnswers([](Client& client) { return client.ask(); })) {
  }
}

void beBurst(int port, std::size_t count) {
  useLastProcessor();
  Clients clients(port, count);
  clients.askAll();
  auto const countDown = [&](Client&) {
    --count;
    return true;
  };
  while (count > 0 && clients.takeAnswers(countDown)) {
  }
  clients.askAll();
  tellServer('x');
  while (clients.takeAnswers(countDown)) {
  }
}

void sleepUntil(double time) {
  double whole;
  double const part = std::modf(time, &whole);
  timespec const until{static_cast<time_t>(whole), static_cast<long>(part * 1e9)};
  clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

void bePolite(int port, std::size_t milliseconds) {
  prctl(PR_SET_TIMERSLACK, 1);
  Client client(port);
  std::vector<double> latencies;
  bool answered = client.ask() && client.takeAnswer();  // so that the server is at work
  double now = clockSeconds(CLOCK_MONOTONIC);
  double const end = now + static_cast<double>(milliseconds) * 1e-3;
  for (double due = now; answered && now < end; due = std::max(due + 1e-3, now)) {
    sleepUntil(due);
    double const asked = clockSeconds(CLOCK_MONOTONIC);
    answered = client.ask() && client.takeAnswer();
    now = clockSeconds(CLOCK_MONOTONIC);
    latencies.push_back(now - asked);
  }
  if (!answered) throw std::runtime_error("the polite client got no answer");
  std::sort(latencies.begin(), latencies.end());
  auto const at = [&](std::size_t percent) {
    return latencies[(latencies.size() - 1) * percent / 100];
  };
  tellServer(PoliteLatency{at(50), at(99)});
}

}  // namespace

int runServerClient(std::vector<std::string> const& arguments) {
  try {
    std::string const& role = arguments.at(0);
    int const port = std::stoi(arguments.at(1));
    std::size_t const number = std::stoul(arguments.at(2));
    if (role == busyClients) beBusy(port, number);
    if (role == burstClients) beBurst(port, number);
    if (role == politeClient) bePolite(port, number);
    return EXIT_SUCCESS;
  } catch (std::exception const& error) {
    std::cerr << "brelo_bench, clients: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
}

}  // namespace Bench
