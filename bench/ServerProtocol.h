#pragma once

#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

#include "Run.h"

namespace Bench {

/// A request, and its answer too.
constexpr std::size_t requestSize = 64;

/// The protocol of the server unit and the counts of one run, the same for every library: for a
/// connection that is readable one read, and one write of what came. A library's part is to say
/// which connection that is.
class Requests {
 public:
  /// Measures `count` requests, after as many as `warmUp`. `warm` is called between the two and
  /// says whether to go on.
  Requests(
      std::uint64_t warmUp, std::uint64_t count, std::function<bool()> warm = [] { return true; })
      : warmUp_(warmUp), count_(count), warm_(std::move(warm)), run_(count) {}
  Requests(Requests const&) = delete;
  Requests& operator=(Requests const&) = delete;

  /// The loop has said that a connection is readable.
  void reported() { ++reports_; }

  /// Answers what a connection has asked, which may be nothing. Does not throw: callbacks of C
  /// libraries are among the callers. True once the loop is to return: all requests have been
  /// answered, or a client has gone.
  bool answer(int fd) {
    if (over_) return true;
    char buffer[4 * requestSize];
    ssize_t const length = recv(fd, buffer, sizeof buffer, 0);
    if (length < 0 && errno == EAGAIN) return false;
    over_ = length <= 0 || send(fd, buffer, length, MSG_NOSIGNAL) != length || isLast();
    return over_;
  }

  /// The same for a server that reads and writes by itself: one request has been answered.
  bool answered() {
    if (!over_) over_ = isLast();
    return over_;
  }

  bool complete() const { return complete_; }
  double cpuSeconds() const { return run_.seconds(); }
  std::uint64_t reports() const { return reports_; }

 private:
  bool isLast() {
    if (warmUp_ == 0) return complete_ = run_.finished();
    if (--warmUp_ > 0) return false;
    bool const goesOn = warm_();
    reports_ = 0;
    run_ = Run(count_);
    return !goesOn;
  }

  std::uint64_t warmUp_;
  std::uint64_t count_;
  std::function<bool()> warm_;
  std::uint64_t reports_ = 0;
  bool complete_ = false;
  bool over_ = false;
  Run run_;
};

}  // namespace Bench
