#pragma once

#include <utility>

#include "Brelo/Export.h"

namespace BreloDaemon {

/// A file descriptor that this object owns: closed with it, moved and never copied. Any thread.
class BRELO_EXPORT Descriptor {
 public:
  Descriptor() = default;  ///< none
  /// Takes `fd` over; -1 for none.
  explicit Descriptor(int fd) : fd_(fd) {}
  /// Take over, and leave the other without.
  /// @{
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  /// @}
  ~Descriptor() { reset(); }

  int get() const { return fd_; }                      ///< -1 without one
  explicit operator bool() const { return fd_ >= 0; }  ///< there is one
  /// Hands the descriptor over to the caller.
  int release() { return std::exchange(fd_, -1); }
  /// Closes the one held, which is gone whatever `close` says, and takes `fd` over. Keeps `errno`.
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

}  // namespace BreloDaemon
