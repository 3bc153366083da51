#include "Brelo/platform/LibeventTurns.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/LibeventControls.h"
#include "Brelo/LibeventFactory.h"
#include "Brelo/platform/LibeventState.h"

namespace Brelo::Impl {

namespace {

constexpr std::uint32_t silent = EPOLLONESHOT;
constexpr std::uint32_t once = EPOLLONESHOT | EPOLLIN;
constexpr std::uint32_t byEdge = EPOLLET | EPOLLIN;

// To take the set out of the base and put it back costs two system calls.
constexpr unsigned manyCallbacks = 16;

}  // namespace

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

bool LibeventTurns::change(int operation, int fd, std::uint32_t events) noexcept {
  epoll_event wanted{};
  wanted.events = events;
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
  if (!change(EPOLL_CTL_ADD, control.fd_, silent)) return false;
  // Whoever has the number has closed it, or the kernel would have refused.
  if (members_[place] != nullptr) forget(*members_[place]);
  members_[place] = &control;
  control.turns_ = this;
  return true;
}

void LibeventTurns::leave(LibeventFdControl& control) noexcept {
  change(EPOLL_CTL_DEL, control.fd_, silent);
  forget(control);
}

void LibeventTurns::forget(LibeventFdControl& control) noexcept {
  awaitNoMore(control);
  control.armed_ = control.byEdge_ = control.unread_ = false;
  control.turns_ = nullptr;
  members_[static_cast<std::size_t>(control.fd_)] = nullptr;
}

// One that hears of what comes costs no call when it is awaited again. Whether something was left
// unread is asked later. One of which more is left, or comes, than is read is told once at a time
// for a while.
bool LibeventTurns::await(LibeventFdControl& control, unsigned passes) noexcept {
  bool const asked = control.armed_ && !control.unread_;
  int* const later = byHand_ && !control.armed_ ? askLater_.placeWithin(passes) : nullptr;
  bool const barred = later != nullptr && control.edgesBarred_ != 0;
  if (barred) --control.edgesBarred_;
  bool const byEdges = later != nullptr && !barred;
  if (byEdges && control.byEdge_) {
    control.unread_ = true;
    *later = control.fd_;
  } else if (!asked) {
    if (!change(EPOLL_CTL_MOD, control.fd_, byEdges ? byEdge : once)) {
      forget(control);
      return false;
    }
    control.byEdge_ = byEdges;
    control.unread_ = false;
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
  turns->readyOfLate_ = true;
  turns->look();
  // A pass with nothing but events of its own is none to libevent: another one would follow.
  if (lePassEndsLoop()) event_active(&turns->counts_, EV_TIMEOUT, 1);
}

void LibeventTurns::look() {
  asked_ = -1;
  askAfter(askLater_.next());
  collect();
  tell();
}

void LibeventTurns::callbackEnded(bool anotherIsNext) {
  bool const ready = std::exchange(readyOfLate_, false);
  if (!anotherIsNext) return intoBase();
  if (byHand_) {
    look();
  } else if (ready && ++busyCallbacks_ == manyCallbacks) {
    outOfBase();
  }
}

void LibeventTurns::outOfBase() noexcept {
  byHand_ = true;
  event_del(&ready_);
}

void LibeventTurns::intoBase() noexcept {
  busyCallbacks_ = 0;
  if (!byHand_) return;
  for (int& each : askLater_)
    askAfter(each);
  // Where there is no memory for it this is made up for at the next pass, which does not wait.
  byHand_ = event_add(&ready_, nullptr) != 0;
  if (byHand_) event_active(&ready_, EV_READ, 1);
}

/// It is found by the next look if it has been left something to read.
void LibeventTurns::askAfter(int& place) noexcept {
  int const fd = std::exchange(place, -1);
  LibeventFdControl* const member = fd < 0 ? nullptr : members_[static_cast<std::size_t>(fd)];
  if (member == nullptr || !std::exchange(member->unread_, false)) return;
  asked_ = fd;
  member->armed_ = member->awaited_ && change(EPOLL_CTL_MOD, fd, byEdge);
  if (member->awaited_ && !member->armed_) member->watchAnew();
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
      if (member != nullptr) noteReady(*member);
    }
  } while (count == static_cast<int>(found.size()));
}

void LibeventTurns::noteReady(LibeventFdControl& member) noexcept {
  member.armed_ = member.unread_ = false;
  if (member.fd_ == asked_) member.edgesBarred_ = Zel::AskLater::barredTimes;
  if (member.awaited_) {
    member.listed_.insertBefore(toTell_);
  } else if (member.byEdge_) {
    // A peer that goes on sending while nobody wants to hear of it would be found at each look.
    member.byEdge_ = false;
    member.edgesBarred_ = Zel::AskLater::barredTimes;
    change(EPOLL_CTL_MOD, member.fd_, silent);
  }
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
    each->byEdge_ = each->unread_ = false;
    if (!change(EPOLL_CTL_ADD, each->fd_, each->armed_ ? once : silent)) forget(*each);
  }
}

}  // namespace Brelo::Impl
