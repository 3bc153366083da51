#include "Brelo/platform/LibeventTurns.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <new>

#include "Brelo/Assert.h"
#include "Brelo/LibeventControls.h"
#include "Brelo/LibeventFactory.h"
#include "Brelo/platform/LibeventState.h"

namespace Brelo::Impl {

LibeventTurns::LibeventTurns(event_base* base) noexcept : set_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (set_ < 0) return;
  // The priority is the one in the middle, `eventPriorityDefault` on the library's own bases.
  event_assign(&ready_, base, set_, EV_READ | EV_PERSIST, handleReady, this);
  // As an event of libevent's own it does not keep the loop.
  ready_.ev_evcallback.evcb_flags |= EVLIST_INTERNAL;
  // One without a descriptor is never ready, costs no system call, and keeps the loop.
  event_assign(&awaiting_, base, -1, EV_READ | EV_PERSIST, handleNothing, this);
  event_assign(&counts_, base, -1, 0, handleNothing, this);
  if (event_add(&ready_, nullptr) == 0) return;
  ::close(set_);
  set_ = -1;
}

LibeventTurns::~LibeventTurns() {
  if (set_ < 0) return;
  for (LibeventFdControl* const each : members_) {
    if (each != nullptr) forget(*each);
  }
  event_del(&ready_);
  event_del(&counts_);
  ::close(set_);
}

bool LibeventTurns::isOwn(event const& ev) {
  return event_get_callback(&ev) == handleNothing;
}

bool LibeventTurns::isAwaited(LibeventFdControl const& control) {
  return control.awaited_;
}

bool LibeventTurns::change(int operation, int fd, bool tells) noexcept {
  epoll_event wanted{};
  wanted.events = EPOLLONESHOT;
  if (tells) wanted.events |= EPOLLIN;
  wanted.data.fd = fd;
  return ::epoll_ctl(set_, operation, fd, &wanted) == 0;
}

bool LibeventTurns::join(LibeventFdControl& control) noexcept {
  if (set_ < 0) return false;
  auto const place = static_cast<std::size_t>(control.fd_);
  try {
    if (place >= members_.size()) members_.resize(2 * place + 1);
  } catch (std::bad_alloc const&) {
    return false;
  }
  if (!change(EPOLL_CTL_ADD, control.fd_, false)) return false;
  // Whoever has the number has closed it, or the kernel would have refused.
  if (members_[place] != nullptr) forget(*members_[place]);
  members_[place] = &control;
  control.turns_ = this;
  return true;
}

void LibeventTurns::leave(LibeventFdControl& control) noexcept {
  change(EPOLL_CTL_DEL, control.fd_, false);
  forget(control);
}

void LibeventTurns::forget(LibeventFdControl& control) noexcept {
  awaitNoMore(control);
  control.armed_ = false;
  control.turns_ = nullptr;
  members_[static_cast<std::size_t>(control.fd_)] = nullptr;
}

bool LibeventTurns::await(LibeventFdControl& control) noexcept {
  if (!control.armed_ && !change(EPOLL_CTL_MOD, control.fd_, true)) {
    forget(control);
    return false;
  }
  control.armed_ = true;
  if (!control.awaited_ && awaited_++ == 0) event_add(&awaiting_, nullptr);
  control.awaited_ = true;
  return true;
}

void LibeventTurns::awaitNoMore(LibeventFdControl& control) noexcept {
  control.listed_.unlink();
  if (control.awaited_ && --awaited_ == 0) event_del(&awaiting_);
  control.awaited_ = false;
}

void LibeventTurns::handleNothing(int, short, void*) {}

void LibeventTurns::handleReady(int, short, void* self) {
  leHandlerBegins();
  auto* const turns = static_cast<LibeventTurns*>(self);
  turns->collect();
  turns->tell();
  // A pass with nothing but events of its own is none to libevent: another one would follow.
  if (lePassEndsLoop()) event_active(&turns->counts_, EV_TIMEOUT, 1);
}

/// All of them before the first is told: who asks again when told waits for the next look.
void LibeventTurns::collect() noexcept {
  std::array<epoll_event, 64> found;
  int count;
  do {
    count = ::epoll_wait(set_, found.data(), static_cast<int>(found.size()), 0);
    for (int i = 0; i < count; ++i) {
      // What has been closed here and is open elsewhere, after a fork for instance, stays in the
      // set: it may be told of once more, and by then nobody, or another one, has its number.
      LibeventFdControl* const member = members_[static_cast<std::size_t>(found[i].data.fd)];
      if (member == nullptr) continue;
      member->armed_ = false;
      if (member->awaited_) member->listed_.insertBefore(toTell_);
    }
  } while (count == static_cast<int>(found.size()));
}

void LibeventTurns::tell() {
  while (toTell_.linked()) {
    LibeventFdControl& member = *toTell_.next()->owner();
    member.listed_.unlink();
    member.takeTurn();
    if (!leExceptionKept() || !toTell_.linked()) continue;
    event_active(&ready_, EV_READ, 1);  // the rest when the loop is entered again
    return;
  }
}

void LibeventTurns::renewInForkedChild() noexcept {
  if (set_ < 0) return;
  int const fresh = ::epoll_create1(EPOLL_CLOEXEC);
  if (fresh < 0 || ::dup3(fresh, set_, O_CLOEXEC) < 0) {
    BRELO_FAIL("Brelo", "Failed to create an epoll set in a forked child: {}", errno);
  }
  ::close(fresh);
  for (LibeventFdControl* const each : members_) {
    if (each == nullptr) continue;
    each->armed_ = each->awaited_;
    if (!change(EPOLL_CTL_ADD, each->fd_, each->armed_)) forget(*each);
  }
}

}  // namespace Brelo::Impl
