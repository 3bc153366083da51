#pragma once

#include <cstddef>
#include <memory>
#include <utility>

namespace BreloDaemon {

/// A buffer of the calling thread, lent for the length of a run, so that a stream at rest has
/// none. Whoever comes while it is out, from a loop inside of a handler, gets a new one.
template <class Use>
class ThreadBuffer {
 public:
  static constexpr std::size_t size = 64 << 10;

  ThreadBuffer() = default;  ///< without
  ThreadBuffer(ThreadBuffer const&) = delete;
  ThreadBuffer& operator=(ThreadBuffer const&) = delete;
  ~ThreadBuffer() {
    if (buffer_) spare() = std::move(buffer_);
  }

  /// Null where there is no memory.
  char* get() {
    if (!buffer_) buffer_ = std::move(spare());
    if (!buffer_) buffer_.reset(new (std::nothrow) char[size]);
    return buffer_.get();
  }

 private:
  static std::unique_ptr<char[]>& spare() {
    thread_local std::unique_ptr<char[]> buffer;
    return buffer;
  }

  std::unique_ptr<char[]> buffer_;
};

}  // namespace BreloDaemon
