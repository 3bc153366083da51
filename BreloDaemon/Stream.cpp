#include "BreloDaemon/Stream.h"

#include <utility>

#include "BreloDaemon/internal/StreamTask.h"

namespace BreloDaemon {

char const* toString(StreamEnd reason) {
  switch (reason) {
    case StreamEnd::closed:
      return "closed";
    case StreamEnd::aborted:
      return "aborted";
    case StreamEnd::peerClosed:
      return "peerClosed";
    case StreamEnd::idle:
      return "idle";
    case StreamEnd::receiveLimit:
      return "receiveLimit";
    case StreamEnd::failed:
      return "failed";
    case StreamEnd::threw:
      return "threw";
  }
  return "unknownEnd";
}

Stream::Stream(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
               std::string const& name, Descriptor descriptor)
    : task_(std::make_shared<StreamTask>(std::move(scheduler), priority, name,
                                         std::move(descriptor))) {}

Stream::~Stream() {
  task_->letGo();
}

void Stream::receive(ReceiveHandler handler) {
  task_->receive(std::move(handler));
}

void Stream::receiveLimitIs(std::size_t bytes) {
  task_->receiveLimitIs(bytes);
}

void Stream::readingPausedIs(bool paused) {
  task_->readingPausedIs(paused);
}

bool Stream::send(std::string_view bytes) {
  return task_->send(&bytes, 1);
}

bool Stream::send(std::initializer_list<std::string_view> views) {
  return task_->send(views.begin(), views.size());
}

bool Stream::send(std::string_view const* views, std::size_t count) {
  return task_->send(views, count);
}

std::size_t Stream::unsent() const {
  return task_->unsent();
}

void Stream::waterMarksIs(std::size_t low, std::size_t high) {
  task_->waterMarksIs(low, high);
}

void Stream::onDrained(std::function<void()> handler) {
  task_->onDrained(std::move(handler));
}

void Stream::close() {
  task_->close();
}

void Stream::abort() {
  task_->abort();
}

void Stream::shutdownSend() {
  task_->shutdownSend();
}

void Stream::halfOpenIs(bool halfOpen) {
  task_->halfOpenIs(halfOpen);
}

void Stream::onReceiveEnd(std::function<void()> handler) {
  task_->onReceiveEnd(std::move(handler));
}

void Stream::idleLimitIs(std::chrono::nanoseconds limit) {
  task_->idleLimitIs(limit);
}

void Stream::onEnd(EndHandler handler) {
  task_->onEnd(std::move(handler));
}

bool Stream::ended() const {
  return task_->ended();
}

std::uint64_t Stream::bytesReceived() const {
  return task_->bytesReceived();
}

std::uint64_t Stream::bytesSent() const {
  return task_->bytesSent();
}

std::string Stream::peerName() const {
  return task_->peerName();
}

int Stream::descriptor() const {
  return task_->descriptor();
}

}  // namespace BreloDaemon
