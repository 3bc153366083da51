// Bytes that a stream sends.
#include <signal.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "Brelo/Assert.h"
#include "BreloDaemon/internal/StreamTask.h"

namespace BreloDaemon {

namespace {

constexpr std::size_t largestGathered = 16 << 10;  // what is larger is not worth a copy
constexpr std::size_t largestWrite = 256 << 10;    // of what has been kept
constexpr std::size_t mostParts = 64;

/// `writev` without SIGPIPE, which only sockets can be asked to leave out.
ssize_t writeWithoutSignal(int fd, iovec const* parts, std::size_t count) {
  sigset_t pipe;
  sigset_t pending;
  sigset_t before;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  sigpending(&pending);
  pthread_sigmask(SIG_BLOCK, &pipe, &before);
  ssize_t const written = ::writev(fd, parts, static_cast<int>(count));
  int const error = errno;
  if (written < 0 && error == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
    timespec const now{};
    sigtimedwait(&pipe, nullptr, &now);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = error;
  return written;
}

ssize_t writeToSocket(int fd, iovec const* parts, std::size_t count) {
  if (count == 1) return ::send(fd, parts->iov_base, parts->iov_len, MSG_NOSIGNAL);
  msghdr message{};
  message.msg_iov = const_cast<iovec*>(parts);
  message.msg_iovlen = count;
  return ::sendmsg(fd, &message, MSG_NOSIGNAL);
}

}  // namespace

bool StreamTask::send(std::string_view const* views, std::size_t count) {
  if (gone() || closing_ || shutdownWanted_) return false;
  std::size_t total = 0;
  for (std::size_t i = 0; i < count; ++i)
    total += views[i].size();
  if (total == 0) return true;
  if (!gather(views, count, total)) writeAll(views, count);
  noteCongestion();
  if (run_ == nullptr) noteMoves();
  changed();
  return !gone();
}

std::size_t StreamTask::unsent() const {
  return unsent_.size() - unsentFrom_ + (run_ != nullptr ? run_->gathered : 0);
}

void StreamTask::waterMarksIs(std::size_t low, std::size_t high) {
  if (low >= high) BRELO_FAIL("Stream", "low water mark {}, high one {}", low, high);
  lowWater_ = low;
  highWater_ = high;
  noteCongestion();
  changed();
}

/// From the high mark down to the low one.
void StreamTask::noteCongestion() {
  std::size_t const size = unsent();
  if (!congested_) {
    congested_ = size >= highWater_;
  } else if (size <= lowWater_) {
    congested_ = false;
    drainedDue_ = true;
    handOver_ = true;
  }
}

/// In a run, for its end. False if this is to go out at once.
bool StreamTask::gather(std::string_view const* views, std::size_t count, std::size_t total) {
  if (run_ == nullptr || total > largestGathered) return false;
  if (run_->gathered + total > ThreadBuffers::size) flushGathered();
  if (gone() || !unsent_.empty()) return false;
  char* into = run_->gatherBuffer.get();
  if (into == nullptr) return false;
  into += run_->gathered;
  for (std::size_t i = 0; i < count; ++i)
    into = std::copy(views[i].begin(), views[i].end(), into);
  run_->gathered += total;
  return true;
}

void StreamTask::flushGathered() {
  if (gone() || run_->gathered == 0) return;
  writeAll(nullptr, 0);
  noteCongestion();
}

/// What has been gathered, and then the views: to the kernel, or what it does not take to
/// `unsent_`.
void StreamTask::writeAll(std::string_view const* views, std::size_t count) {
  if (gone()) return;
  std::string_view gathered;
  if (run_ != nullptr && run_->gathered > 0) {
    gathered = {run_->gatherBuffer.get(), std::exchange(run_->gathered, 0)};
  }
  std::size_t written = 0;
  if (unsent_.empty()) {
    std::array<iovec, mostParts> parts;
    std::size_t used = 0;
    auto const add = [&](std::string_view bytes) {
      if (bytes.empty() || used == parts.size()) return;
      parts[used++] = {const_cast<char*>(bytes.data()), bytes.size()};
    };
    add(gathered);
    for (std::size_t i = 0; i < count; ++i)
      add(views[i]);
    written = write(parts.data(), used);
  }
  auto const keep = [&](std::string_view bytes) {
    std::size_t const skipped = std::min(written, bytes.size());
    written -= skipped;
    bytes.remove_prefix(skipped);
    if (!gone() && !bytes.empty()) keepUnsent(bytes);
  };
  keep(gathered);
  for (std::size_t i = 0; i < count; ++i)
    keep(views[i]);
}

void StreamTask::keepUnsent(std::string_view bytes) {
  try {
    unsent_.append(bytes);
  } catch (std::bad_alloc const&) {
    end(StreamEnd::failed, ENOMEM);
  }
}

/// How much the kernel has taken; a failure ends the stream.
std::size_t StreamTask::write(iovec const* parts, std::size_t count) {
  for (;;) {
    ssize_t const written = isSocket_ ? writeToSocket(descriptor_.get(), parts, count)
                                      : writeWithoutSignal(descriptor_.get(), parts, count);
    if (written >= 0) {
      bytesSent_ += static_cast<std::size_t>(written);
      return static_cast<std::size_t>(written);
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) end(StreamEnd::failed, errno);
    return 0;
  }
}

void StreamTask::flushUnsent() {
  while (!gone() && !unsent_.empty()) {
    iovec const part{unsent_.data() + unsentFrom_,
                     std::min(unsent_.size() - unsentFrom_, largestWrite)};
    std::size_t const written = write(&part, 1);
    dropSent(written);
    if (written < part.iov_len || taskShouldYield()) break;
  }
  noteCongestion();
}

/// Takes the front away by halves, so that a byte is moved about once.
void StreamTask::dropSent(std::size_t bytes) {
  unsentFrom_ += bytes;
  if (unsentFrom_ == unsent_.size()) {
    std::string().swap(unsent_);
    unsentFrom_ = 0;
  } else if (unsentFrom_ > unsent_.size() / 2) {
    unsent_.erase(0, unsentFrom_);
    unsentFrom_ = 0;
  }
}

}  // namespace BreloDaemon
