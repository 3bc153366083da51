// The part of the scenario that has to do with other threads, signals, children and the service
// manager.

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "Attempts.h"
#include "BreloDaemon/ChildTask.h"
#include "BreloDaemon/Mailbox.h"
#include "BreloDaemon/ServiceNotify.h"
#include "BreloDaemon/SignalTask.h"
#include "BreloDaemon/WorkerPool.h"
#include "FailingMalloc.h"

namespace Faults {

using namespace BreloDaemon;
using Brelo::TaskPriority;

namespace {

constexpr int each = 5;

/// The service manager's socket.
class Manager {
 public:
  Manager() : name_("brelo-faults-" + std::to_string(::getpid())) {
    address_.sun_family = AF_UNIX;
    name_.copy(address_.sun_path + 1, name_.size());
    fd_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    auto const length = sizeof address_.sun_family + 1 + name_.size();
    expect(::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address_),
                  static_cast<socklen_t>(length)) == 0,
           "a socket for the service manager");
  }
  void startsIt() const {
    Uncounted const own;
    ::setenv("NOTIFY_SOCKET", ("@" + name_).c_str(), 1);
    ::setenv("WATCHDOG_USEC", "2000", 1);
  }
  bool hears(std::string_view message) const {
    char text[128];
    ssize_t const size = ::recv(fd_.get(), text, sizeof text, 0);
    return size > 0 && std::string_view(text, static_cast<std::size_t>(size)) == message;
  }

 private:
  std::string name_;
  sockaddr_un address_{};
  Descriptor fd_;
};

}  // namespace

void Scenario::threads() {
  auto const mailbox =
      attempt([&] { return std::make_unique<Mailbox>(root_, TaskPriority::normal, "mail"); });
  int ran = 0;
  auto const count = [&ran] { ++ran; };
  std::thread poster = attempt([&] {
    return std::thread([count, sender = mailbox->sender()] {
      for (int i = 0; i < each; ++i)
        sender.post(count);
    });
  });
  for (int i = 0; i < each; ++i)
    attempt([&] { expect(mailbox->sender().post(count), "a post is taken"); });
  loopUntil("each post runs", [&] { return ran >= 2 * each; });
  poster.join();
  expect(ran == 2 * each, "each post runs once");

  auto const pool = attempt(
      [&] { return std::make_unique<WorkerPool>(root_, TaskPriority::normal, "pool", 2, each); });
  int done = 0;
  for (int i = 0; i < each; ++i) {
    attempt([&] {
      bool const taken = pool->submit([i] { return i; },
                                      [&done, i](auto&& outcome) { done += outcome.get() == i; });
      expect(taken, "work is taken");
    });
  }
  loopUntil("each result is handed over", [&] { return done >= each; });
  expect(done == each, "each result is handed over once");
}

void Scenario::signalsAndChildren() {
  int got = 0;
  auto const signals = attempt([&] {
    return std::make_unique<SignalTask>(root_, TaskPriority::high, "signals",
                                        std::initializer_list<int>{SIGUSR1},
                                        [&](auto const&) { ++got; });
  });
  raise(SIGUSR1);
  loopUntil("the signal is delivered", [&] { return got == 1; });

  int ended = 0;
  for (int i = 0; i < 3; ++i) {
    auto child = attempt([&] {
      ChildProgram program;
      program.path = "false";
      program.pathSearched = true;
      program.environmentInherited = false;
      program.environment = {"NAME=value"};
      program.output = ChildProgram::Standard::pipe;
      return std::make_unique<ChildTask>(root_, TaskPriority::normal, "child", std::move(program),
                                         [&](ChildEnd const& end) {
                                           expect(end.status == 1, "the child's own status");
                                           ++ended;
                                         });
    });
    if (i == 2) break;  // is let go of while it runs
    loopUntil("the child ends", [&] { return ended == i + 1; });
  }
}

void Scenario::serviceManager() {
  auto const manager = [] {
    Uncounted const own;
    return Manager();
  }();
  auto const service = attempt([&] {
    manager.startsIt();
    return std::make_unique<ServiceNotify>();
  });
  attempt([&] {
    if (auto const error = service->ready()) throw std::system_error(error);
  });
  expect(manager.hears("READY=1"), "it is ready");
  attempt([&] { service->feedWatchdog(root_, TaskPriority::low); });
  loopUntil("the watchdog is fed", [&] { return manager.hears("WATCHDOG=1"); });
  loopUntil("and again", [&] { return manager.hears("WATCHDOG=1"); });
}

}  // namespace Faults
