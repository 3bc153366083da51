#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "daemon/support/StreamPair.h"

namespace BreloTest {

/// A path in a folder of its own, which goes with the object.
struct SocketFolder {
  SocketFolder() {
    std::string name = "/tmp/brelo-stats-XXXXXX";
    EXPECT_NE(::mkdtemp(name.data()), nullptr);
    folder = name;
    path = name + "/socket";
  }
  SocketFolder(SocketFolder const&) = delete;
  ~SocketFolder() { std::filesystem::remove_all(folder); }

  std::string folder;
  std::string path;
};

/// A client of a statistics server that runs on this thread's loop.
class StatsClient : public Peer {
 public:
  explicit StatsClient(std::string const& path) : Peer(connectedTo(path)) {}

  /// What there is until `end` comes, or the connection ends.
  std::string readUntil(std::string_view end) {
    loopUntil([&] {
      text_ += read();
      return text_.find(end) != text_.npos || ended() || reset();
    });
    std::size_t const size = std::min(text_.find(end), text_.size() - end.size()) + end.size();
    std::string const got = text_.substr(0, size);
    text_.erase(0, size);
    return got;
  }
  std::string readLine() { return readUntil("\n"); }
  /// What there is until the server closes.
  std::string readAll() {
    loopUntil([&] {
      text_ += read();
      return ended() || reset();
    });
    return std::exchange(text_, {});
  }
  std::string askLine(std::string const& request) {
    EXPECT_EQ(write(request + "\n"), request.size() + 1);
    return readLine();
  }
  /// A document; from here on answers are framed.
  nlohmann::json ask(std::string const& request) {
    EXPECT_TRUE(std::exchange(framed_, true) || askLine("framed") == "framed 1\n");
    return nlohmann::json::parse(askFramed(request), nullptr, false);
  }
  /// The pieces of a framed answer, put together; an error as it came.
  std::string readFramed() {
    for (std::string answer;;) {
      std::string const head = readLine();
      if (head == ".\n") return answer;
      if (head.empty() || head[0] != '+') return head;
      std::size_t const size = std::stoul(head.substr(1));
      EXPECT_TRUE(loopUntil([&] { return (text_ += read()).size() >= size || ended(); }));
      answer += text_.substr(0, size);
      text_.erase(0, size);
    }
  }
  std::string askFramed(std::string const& request) {
    EXPECT_EQ(write(request + "\n"), request.size() + 1);
    return readFramed();
  }

 private:
  static BreloDaemon::Descriptor connectedTo(std::string const& path) {
    BreloDaemon::Descriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
  }

  std::string text_;
  bool framed_ = false;
};

}  // namespace BreloTest
