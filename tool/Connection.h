#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "Answers.h"
#include "Descriptor.h"

namespace Tool {

/// A connection to the socket of a daemon's statistics (doc/observe/protocol.md).
///
/// Who wants one answer after the other calls `ask`, which waits. Who has a loop of its own calls
/// `send`, polls `descriptor()` for `events()` until `deadline()`, and calls `advance` at each
/// readiness and at the deadline. Either way every wait and every size is bounded, and what goes
/// wrong is a `Failure` that begins with the socket's path; the connection is of no use after it.
class Connection {
 public:
  using Clock = std::chrono::steady_clock;
  struct Limits {
    /// How long a daemon may take to accept; zero for not to wait for it.
    std::chrono::milliseconds connect{2'000};
    /// How long it may take for an answer, to its last byte.
    std::chrono::milliseconds answer{10'000};
    std::size_t bytes = std::size_t{256} << 20;  ///< the largest answer
  };

  /// Connects.
  explicit Connection(std::string path, Limits limits);
  explicit Connection(std::string path) : Connection(std::move(path), Limits()) {}

  std::string const& path() const { return path_; }

  /// The answer to a request, which is one line without its end. An answer that the daemon calls an
  /// error is a `Failure`, too, but the connection goes on. None may be outstanding.
  std::string ask(std::string_view request);

  /// Waits for the next answer.
  Answer wait();

  /// Sends a request as far as this goes without waiting; `advance` sends the rest.
  void send(std::string_view request);
  int descriptor() const { return descriptor_.get(); }
  short events() const;  ///< as poll() takes them
  /// When the oldest request that is not answered yet has lasted too long; the end of time if there
  /// is none.
  Clock::time_point deadline() const;
  /// Sends and receives what goes without waiting, and gives the next answer if it is whole. Call
  /// it again until it gives none.
  std::optional<Answer> advance();

 private:
  [[noreturn]] void fail(std::string const& text) const;
  void connect();
  void sendSome();
  void receiveSome();

  std::string path_;
  Limits limits_;
  Descriptor descriptor_;
  std::string unsent_;
  Answers answers_;
  bool ended_ = false;  // the daemon has closed its side
  std::size_t outstanding_ = 0;
  Clock::time_point waitingSince_;
};

}  // namespace Tool
