// Bytes that a stream receives.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "Brelo/Assert.h"
#include "BreloDaemon/internal/StreamTask.h"

namespace BreloDaemon {

namespace {

constexpr int readsOfRun = 4;  // whole buffers, after which others get their turn

std::size_t checked(std::size_t consumed, std::size_t offered) {
  if (consumed > offered) BRELO_FAIL("Stream", "{} of {} bytes consumed", consumed, offered);
  return consumed;
}

}  // namespace

void StreamTask::receive(Stream::ReceiveHandler handler) {
  if (finished_) return;
  receive_.set(std::move(handler));
  handOver_ = true;
  changed();
}

void StreamTask::readingPausedIs(bool paused) {
  if (paused == paused_) return;
  paused_ = paused;
  if (!paused) handOver_ = true;
  changed();
}

/// Somebody would take what is received.
bool StreamTask::takesInput() const {
  return receive_ && !paused_ && !congested_ && !closing_ && !gone();
}

void StreamTask::receiveSome() {
  bool const ready = std::exchange(readReady_, false) || idleDue_;
  handOverAgain();
  if (!ready) return;
  ThreadBuffers::Loan buffer(ThreadBuffers::receiving);
  for (int reads = 0; reads < readsOfRun && takesInput() && !receiveEnded_; ++reads) {
    char* const into = buffer.get();
    if (into == nullptr) return end(StreamEnd::failed, ENOMEM);
    ssize_t const got = isSocket_ ? ::recv(descriptor_.get(), into, ThreadBuffers::size, 0)
                                  : ::read(descriptor_.get(), into, ThreadBuffers::size);
    if (got < 0) {
      if (errno != EAGAIN && errno != EINTR) end(StreamEnd::failed, errno);
      return;
    }
    if (got == 0) return endOfInput();
    bytesReceived_ += static_cast<std::size_t>(got);
    handOver({into, static_cast<std::size_t>(got)});
    handOverAgain();
    if (static_cast<std::size_t>(got) < ThreadBuffers::size || taskShouldYield()) return;
    flushGathered();
  }
}

void StreamTask::handOver(std::string_view bytes) {
  handOver_ = false;
  try {
    if (!kept_.empty()) kept_.append(bytes);
  } catch (std::bad_alloc const&) {
    return end(StreamEnd::failed, ENOMEM);
  }
  if (!kept_.empty()) return handOverKept();
  bytes.remove_prefix(checked(receive_(bytes), bytes.size()));
  if (gone()) return;
  try {
    if (!bytes.empty()) kept_.assign(bytes);
  } catch (std::bad_alloc const&) {
    return end(StreamEnd::failed, ENOMEM);
  }
  checkReceiveLimit();
}

void StreamTask::handOverKept() {
  handOver_ = false;
  std::size_t const consumed = checked(receive_(kept_), kept_.size());
  if (gone()) return;
  if (consumed == kept_.size()) {
    std::string().swap(kept_);
  } else {
    kept_.erase(0, consumed);
  }
  checkReceiveLimit();
}

/// To a new handler, or after a pause.
void StreamTask::handOverAgain() {
  while (handOver_ && !kept_.empty() && takesInput() && !taskShouldYield())
    handOverKept();
}

void StreamTask::checkReceiveLimit() {
  if (kept_.size() >= receiveLimit_ && !handOver_) end(StreamEnd::receiveLimit);
}

void StreamTask::endOfInput() {
  receiveEnded_ = true;
  if (!kept_.empty()) handOverKept();
  if (gone()) return;
  if (extras_ && extras_->onReceiveEnd) extras_->onReceiveEnd();
  if (!halfOpen_) closeFor(StreamEnd::peerClosed);
}

}  // namespace BreloDaemon
