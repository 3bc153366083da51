#include "Zel/FileDescriptor.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <cerrno>
#include <locale>
#include <sstream>
#include <system_error>
#include <utility>

#include "Zel/internal/DescriptorSet.h"

namespace Zel {
namespace {

/// Gives the mode to an open descriptor, if there is one to give; an errno, or 0.
int giveMode(int descriptor, std::optional<bool> nonBlocking) {
  int const flags = fcntl(descriptor, F_GETFL);
  if (flags == -1) return errno;
  if (!nonBlocking) return 0;
  int const wanted = *nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
  return wanted == flags || fcntl(descriptor, F_SETFL, wanted) == 0 ? 0 : errno;
}

[[noreturn]] void throwFailed(char const* what, int descriptor, String const& name, int error) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << "failed to " << what << " descriptor " << descriptor << " of " << name;
  throw std::system_error(error, std::generic_category(), text.str());
}

}  // namespace

FileDescriptor::FileDescriptor(String name) : name_(std::move(name)) {}

FileDescriptor::~FileDescriptor() {
  unbind();
}

void FileDescriptor::hasNotificationActiveIs(bool active) {
  if (active == active_) return;
  active_ = active;
  readable_.since = writable_.since = descriptorSet().looks();
  if (int const error = wishesChanged(active); error != 0) {
    active_ = false;
    throwFailed("watch", descriptor_, name_, error);
  }
}

void FileDescriptor::descriptorIs(int descriptor) {
  unbind();
  if (descriptor == -1) return;

  int error = giveMode(descriptor, nonBlocking_);
  if (error == 0) {
    descriptorSet().makeRoomFor(descriptor);
    descriptor_ = descriptor;
    readable_.since = writable_.since = descriptorSet().looks();
    error = descriptorSet().bind(*this);
  }
  if (error != 0) {
    descriptor_ = -1;
    throwFailed("bind", descriptor, name_, error);
  }
}

void FileDescriptor::nonBlockingIs(bool nonBlocking) {
  nonBlocking_ = nonBlocking;
  if (descriptor_ == -1) return;
  if (int const error = giveMode(descriptor_, nonBlocking_); error != 0) {
    throwFailed("set the mode of", descriptor_, name_, error);
  }
}

void FileDescriptor::notifyOnReadableIs(bool on) {
  wishIs(readable_, on, [&] { return wishesChanged(on); });
}

void FileDescriptor::notifyOnReadableAgain(unsigned passes) {
  wishIs(readable_, true,
         [&] { return descriptor_ == -1 ? 0 : descriptorSet().wantsAgain(*this, passes); });
}

void FileDescriptor::notifyOnWritableIs(bool on) {
  wishIs(writable_, on, [&] { return wishesChanged(on); });
}

std::uint32_t FileDescriptor::events() const {
  std::uint32_t events = 0;
  if (active_ && readable_.wanted) events |= EPOLLIN;
  if (active_ && writable_.wanted) events |= EPOLLOUT;
  return events;
}

template <class Tell>
void FileDescriptor::wishIs(Direction& direction, bool on, Tell tell) {
  if (on == direction.wanted) return;
  direction.wanted = on;
  direction.since = descriptorSet().looks();
  if (int const error = tell(); error != 0) {
    direction.wanted = false;
    throwFailed("watch", descriptor_, name_, error);
  }
}

int FileDescriptor::wishesChanged(bool more) {
  if (descriptor_ == -1) return 0;
  if (more) return descriptorSet().wantsMore(*this);
  descriptorSet().wantsLess(*this);
  return 0;
}

void FileDescriptor::unbind() noexcept {
  if (descriptor_ == -1) return;
  descriptorSet().unbind(*this);
  descriptor_ = -1;
}

void FileDescriptor::readyIs(std::uint32_t events, std::uint64_t look) {
  bool const both = (events & (EPOLLHUP | EPOLLERR)) != 0;
  if (both || (events & EPOLLIN) != 0) deliver(readable_, readableCountAttribute, look);
  if (both || (events & EPOLLOUT) != 0) deliver(writable_, writableCountAttribute, look);
}

void FileDescriptor::deliver(Direction& direction, AttributeId id, std::uint64_t look) {
  if (descriptor_ == -1 || !active_ || !direction.wanted || direction.since >= look) return;
  ++direction.count;
  notify(id);
}

}  // namespace Zel
