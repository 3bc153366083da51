#include "Listener.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <string>
#include <utility>

#include "Checked.h"

namespace Wordd {

namespace {

using namespace std::chrono_literals;

// However many clients there are to count for, the event loop is back after this time.
constexpr Brelo::TaskTimeDuration countingQuantum{4ms};
// And this is how long one of them makes the others wait.
constexpr Brelo::TaskTimeDuration clientQuantum{500us};

Descriptor listenOnLoopback(std::uint16_t port) {
  Descriptor socket(
      checked(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket"));
  int const on = 1;
  checked(::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "setsockopt");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  checked(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
  checked(::listen(socket.get(), SOMAXCONN), "listen");
  return socket;
}

}  // namespace

Listener::Listener(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, std::uint16_t port,
                   Limits const& limits)
    : Acceptor(scheduler, "listener", listenOnLoopback(port)),
      limits_(limits),
      memory_(std::make_shared<MemoryBudget>(limits.memory)),
      counting_(
          Brelo::TaskGroup::TaskGroupIs("counting", Brelo::TaskPriority::low, true, scheduler)) {
  counting_->taskGroupQuantumIs(countingQuantum);
  counting_->defaultTaskQuantumIs(clientQuantum);
}

std::uint16_t Listener::port() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  checked(::getsockname(listening().get(), reinterpret_cast<sockaddr*>(&address), &size),
          "getsockname");
  return ntohs(address.sin_port);
}

void Listener::accepted(Descriptor socket) {
  std::uint64_t const number = ++accepted_;
  connections_[number] =
      std::make_shared<Connection>(taskScheduler(), counting_, memory_, std::move(socket),
                                   "connection " + std::to_string(number), limits_.idleSeconds,
                                   [this, number] { ended(number); });
  fullIs(connections_.size() >= limits_.clients);
}

void Listener::ended(std::uint64_t number) {
  fullIs(false);
  connections_.erase(number);
}

}  // namespace Wordd
