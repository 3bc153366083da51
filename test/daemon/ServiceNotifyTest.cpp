#include "BreloDaemon/ServiceNotify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <system_error>
#include <vector>

#include "Brelo/TaskSchedulerRoot.h"
#include "BreloDaemon/Descriptor.h"
#include "support/Backend.h"
#include "support/ChildProcess.h"
#include "support/FaultInjection.h"
#include "support/Handlers.h"
#include "support/WorkTasks.h"

namespace BreloDaemon {
namespace {

using namespace BreloTest;
using namespace std::chrono_literals;

/// A service manager's side, and the environment that it gives to a daemon.
class Manager {
 public:
  explicit Manager(std::string const& address)
      : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    address.copy(name.sun_path, sizeof name.sun_path - 1);
    if (address[0] == '@') name.sun_path[0] = '\0';
    auto const length = offsetof(sockaddr_un, sun_path) + address.size();
    EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<sockaddr*>(&name), static_cast<socklen_t>(length)),
              0);
    ::setenv("NOTIFY_SOCKET", address.c_str(), 1);
  }
  ~Manager() { ::unsetenv("NOTIFY_SOCKET"); }

  /// The next datagram; empty if there is none.
  std::string heard() const {
    char text[512];
    ssize_t const got = ::recv(fd_.get(), text, sizeof text, 0);
    return {text, static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
  }

 private:
  Descriptor fd_;
};

/// An address that no other test has.
std::string ownAddress(std::string const& before) {
  return before + "brelo-notify-" + std::to_string(::getpid());
}

TEST(ServiceNotify, SaysWhatTheManagersOwnToolSays) {
  std::string const path = ownAddress(testing::TempDir());
  for (auto const& address : {path, ownAddress("@")}) {
    Manager const manager(address);
    bool const reference = std::system("systemd-notify --version >/dev/null 2>&1") == 0;
    std::vector<std::string> expected{"READY=1", "STATUS=all is well", "MAINPID=1"};
    if (reference) {
      expected.clear();
      for (char const* const option : {"--ready", "--status='all is well'", "--pid=1"}) {
        EXPECT_EQ(std::system((std::string("systemd-notify --no-block ") + option).c_str()), 0);
        expected.push_back(manager.heard());
      }
    }
    ServiceNotify notify;
    EXPECT_EQ(::getenv("NOTIFY_SOCKET"), nullptr);
    std::vector<std::string> said;
    for (auto const& error : {notify.ready(), notify.status("all is\nwell"), notify.mainPidIs(1)}) {
      EXPECT_FALSE(error);
      said.push_back(manager.heard());
    }
    EXPECT_EQ(said, expected);
    notify.stopping();
    EXPECT_EQ(manager.heard(), "STOPPING=1");
    notify.extendTimeout(2s);
    EXPECT_EQ(manager.heard(), "EXTEND_TIMEOUT_USEC=2000000");
    auto const now = std::chrono::steady_clock::now().time_since_epoch();
    notify.reloading();
    auto const text = manager.heard();
    EXPECT_EQ(text.substr(0, 27), "RELOADING=1\nMONOTONIC_USEC=");
    auto const since = std::chrono::microseconds(std::stoll(text.substr(27))) - now;
    EXPECT_TRUE(since > -1us && since < 1s) << since.count();
    EXPECT_TRUE(passesInChild([&] { notify.ready(); }));
    EXPECT_EQ(manager.heard(), "");
  }
  ::unlink(path.c_str());
}

TEST(ServiceNotify, SaysWhyItWasNotHeard) {
  EXPECT_FALSE(ServiceNotify().active());
  EXPECT_FALSE(ServiceNotify().ready());
  for (auto const& bad :
       {std::string("vsock:2:1"), std::string("@"), "/" + std::string(107, 'x')}) {
    ::setenv("NOTIFY_SOCKET", bad.c_str(), 1);
    EXPECT_THROW(ServiceNotify(), std::system_error) << bad;
    EXPECT_EQ(::getenv("NOTIFY_SOCKET"), nullptr);
  }
  ::setenv("NOTIFY_SOCKET", ownAddress("@gone-").c_str(), 1);
  EXPECT_EQ(ServiceNotify().ready(), std::errc::connection_refused);

  Manager const manager(ownAddress("@"));  // which never reads
  ServiceNotify notify;
  std::error_code error;
  for (int left = 5000; left > 0 && !error; --left)
    error = notify.ready();
  EXPECT_EQ(error, std::errc::resource_unavailable_try_again);
}

class Watchdog : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(Watchdog);

TEST_P(Watchdog, IsFedAtHalfTimeWhilePriorityGetsItsTurn) {
  run([] {
    Manager const manager(ownAddress("@"));
    ::setenv("WATCHDOG_USEC", "20000", 1);
    ::setenv("WATCHDOG_PID", std::to_string(::getpid()).c_str(), 1);
    ServiceNotify notify;
    EXPECT_EQ(::getenv("WATCHDOG_USEC"), nullptr);
    EXPECT_EQ(notify.watchdogTime(), 20ms);
    auto const root = Brelo::schedulerRootBreloNonShared("root");
    notify.feedWatchdog(root, Brelo::TaskPriority::normal);
    auto const fed = [&] { return manager.heard() == "WATCHDOG=1"; };
    double shortest = 1, last = 0;
    for (int feeds = 0; feeds < 5; ++feeds) {
      EXPECT_TRUE(runUntil([&, heard = false]() mutable { return heard = heard || fed(); }));
      double const now = Brelo::time();
      if (feeds > 1) shortest = std::min(shortest, now - last);
      last = now;
    }
    EXPECT_LT(shortest, 0.018);
    auto const hog = workTask(
        root, "hog", [](WorkTask& task) { task.scheduleTask(); }, Brelo::TaskPriority::absolute);
    hog->scheduleTask();
    Brelo::Platform::doEventLoop(0.03);
    EXPECT_FALSE(fed());
    hog->unscheduleTask();
    EXPECT_TRUE(runUntil([&, heard = false]() mutable { return heard = heard || fed(); }));
  });
}

TEST(ServiceNotify, OnlyItsOwnWatchdogIsFed) {
  Manager const manager(ownAddress("@"));
  ::setenv("WATCHDOG_USEC", "20000", 1);
  ::setenv("WATCHDOG_PID", "1", 1);
  EXPECT_EQ(ServiceNotify().watchdogTime(), std::chrono::nanoseconds::max());
  for (char const* const bad : {"0", "-1", "1s", "99999999999999999999"}) {
    ::setenv("WATCHDOG_USEC", bad, 1);
    EXPECT_THROW(ServiceNotify(), std::system_error) << bad;
  }
}

}  // namespace
}  // namespace BreloDaemon
