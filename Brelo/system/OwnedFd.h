#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Brelo::Impl {

/// A descriptor on its way to its owner; closed where it does not get there, `errno` left as it is.
/// A negative one is none.
class OwnedFd {
 public:
  explicit OwnedFd(int fd) : fd_(fd) {}
  OwnedFd(OwnedFd const&) = delete;
  OwnedFd& operator=(OwnedFd const&) = delete;
  ~OwnedFd() {
    int const saved = errno;
    if (fd_ >= 0) close(fd_);
    errno = saved;
  }

  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace Brelo::Impl
