#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <limits>
#include <memory>

#include "Brelo/Platform.h"

/// Handlers of the platform that count and act, each with a control of the calling thread's
/// backend. An action may reset `control`.

namespace BreloTest {

constexpr double never = std::numeric_limits<double>::infinity();

/// What a handler does, how often it has done so, and whether it handles what that throws.
struct Doing {
  void run(bool counts = true) {
    runs += counts;
    action();
  }

  std::function<void()> action = [] {};
  int runs = 0;
  bool handles = false;
};

struct Timer : Doing, Brelo::Platform::TimeoutHandler {
  explicit Timer(std::function<void()> const& does = [] {}) : Doing{does} {}
  void timeout() override { run(); }
  bool handleTimeoutException() override { return handles; }

  std::shared_ptr<Brelo::Platform::TimerControl> control = getTimerControl(this);
};

struct Callback : Doing, Brelo::Platform::CallbackHandler {
  void callback() override { run(); }
  bool handleCallbackException() override { return handles; }

  std::shared_ptr<Brelo::Platform::CallbackControl> control = getCallbackControl(this);
};

/// An event with another descriptor than the control's does not count. `read` says who handles.
struct Watch : Brelo::Platform::FdEventHandler {
  Watch(int fd, bool wantsReads, bool wantsWrites) {
    control->setReads(wantsReads);
    control->setWrites(wantsWrites);
    if (fd >= 0) control->setFd(fd);
  }
  void readFdEvent(int fd) override { read.run(fd == control->getFd()); }
  void writeFdEvent(int fd) override { write.run(fd == control->getFd()); }
  bool handleFdException(int) override { return read.handles; }

  Doing read;
  Doing write;
  std::shared_ptr<Brelo::Platform::FdControl> control = getFdControl(this);
};

/// Two connected sockets; both ends are writable, and `near` is readable after `send()`.
struct SocketPair {
  SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0); }
  SocketPair(SocketPair&&) = delete;
  ~SocketPair() {
    close(ends[0]);
    close(ends[1]);
  }
  int near() const { return ends[0]; }
  void send() { EXPECT_EQ(write(ends[1], "x", 1), 1); }

  int ends[2];
};

/// Runs the loop until `done()`; false if that takes longer than any machine should need.
inline bool runUntil(std::function<bool()> const& done) {
  for (int left = 3000; left > 0 && !done(); --left)
    Brelo::Platform::doEventLoop(0.001);
  return done();
}

}  // namespace BreloTest
