#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloDaemon/Descriptor.h"
#include "BreloDaemon/Stream.h"

namespace BreloTest {

/// Runs the loop until `condition` holds; false if that takes seconds.
template <class Condition>
bool loopUntil(Condition condition) {
  auto const limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    Brelo::Platform::doEventLoopInWaitfor(0.001);
  }
  return true;
}

/// Some passes, in which nothing may happen that should not.
inline void loopABit() {
  for (int i = 0; i < 5; ++i)
    Brelo::Platform::doEventLoopInWaitfor(0.0005);
}

/// The other side of a stream, which never blocks.
class Peer {
 public:
  Peer() = default;
  explicit Peer(BreloDaemon::Descriptor fd) : fd_(std::move(fd)) {}

  /// What there is to be read.
  std::string read(std::size_t most = 1 << 20) {
    std::string bytes(most, '\0');
    ssize_t const got = ::recvfrom(fd_.get(), bytes.data(), most, MSG_DONTWAIT, nullptr, nullptr);
    ended_ = got == 0;
    reset_ = got < 0 && errno != EAGAIN;
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }
  /// How much of it the kernel has taken.
  std::size_t write(std::string_view bytes) {
    ssize_t const taken =
        ::sendto(fd_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0);
    return taken > 0 ? static_cast<std::size_t>(taken) : 0;
  }
  bool ended() const { return ended_; }  ///< as of the last read
  bool reset() const { return reset_; }
  void shutdownWrite() { ::shutdown(fd_.get(), SHUT_WR); }
  void close() { fd_.reset(); }
  int fd() const { return fd_.get(); }

 private:
  BreloDaemon::Descriptor fd_;
  bool ended_ = false;
  bool reset_ = false;
};

/// A stream on one end of a socket pair, a peer on the other, and what has become of the stream.
struct StreamPair {
  explicit StreamPair(int type = SOCK_STREAM, std::shared_ptr<Brelo::TaskScheduler> scheduler =
                                                  Brelo::schedulerRootBrelo()) {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds), 0);
    peer = Peer(BreloDaemon::Descriptor(fds[1]));
    stream =
        std::make_shared<BreloDaemon::Stream>(std::move(scheduler), Brelo::TaskPriority::normal,
                                              "stream", BreloDaemon::Descriptor(fds[0]));
    stream->onEnd([this](BreloDaemon::StreamEnd reason, std::error_code code) {
      ++ends;
      end = reason;
      error = code;
    });
  }
  bool untilEnd() {
    return loopUntil([this] { return ends > 0; });
  }

  Peer peer;
  std::shared_ptr<BreloDaemon::Stream> stream;
  int ends = 0;
  std::optional<BreloDaemon::StreamEnd> end;
  std::error_code error;
};

}  // namespace BreloTest
