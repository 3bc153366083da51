#pragma once

#include <unistd.h>

#include <utility>

namespace Wordd {

/// An open descriptor, closed with its owner; -1 for none. A task that watches one calls
/// `taskWatchFdDel()` in its destructor: members end before the watch, which the base holds.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }

  int get() const { return fd_; }
  /// Gives the descriptor to the caller.
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace Wordd
