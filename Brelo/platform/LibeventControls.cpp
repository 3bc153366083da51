#include "Brelo/LibeventControls.h"

#include <event2/event_compat.h>
#include <fcntl.h>
#include <sys/time.h>

#include <cassert>
#include <cerrno>
#include <cmath>
#include <limits>
#include <new>
#include <system_error>

#include "Brelo/Assert.h"
#include "Brelo/LibeventFactory.h"
#include "Brelo/platform/LibeventState.h"
#include "Brelo/platform/LibeventTurns.h"
#include "Brelo/platform/Pending.h"

namespace Brelo {

using Impl::libeventTrace;

namespace {

// Half of the range, since libevent adds the clock's time to it.
constexpr time_t longestSeconds = std::numeric_limits<time_t>::max() / 2;

thread_local Zel::ListNode<LibeventFdControl> lingeringReads;
thread_local std::uint64_t readsOffTurns = 0;  // how often reads have been turned off

void tellTurns(bool callbackIsNext) {
  if (auto* const turns = Impl::leTurns()) turns->callbackEnded(callbackIsNext);
}

void assign(event* ev, int fd, short flags, event_callback_fn callback, void* self,
            Platform::EventPriority priority) {
  event_assign(ev, ev_base, fd, flags, callback, self);
  eventPrioritySet(ev, priority);
}

}  // namespace

void eventPrioritySet(event* ev, Platform::EventPriority priority) {
  BRELO_TRACE(libeventTrace, 9, "Brelo", "Setting priority of {} to {}", DisplayPointer(ev),
              priority);
  int const rc = event_priority_set(ev, priority);
  if (rc != 0) {
    BRELO_FAIL("Brelo", "Failed to set priority on {} to {} rc {}", DisplayPointer(ev), priority,
               rc);
  }
}

timeval toTimeval(double seconds) {
  if (!(seconds > 0)) return {0, 0};
  if (seconds >= static_cast<double>(longestSeconds)) return {longestSeconds, 999999};
  auto const whole = static_cast<time_t>(seconds);
  return {whole, static_cast<suseconds_t>((seconds - static_cast<double>(whole)) * 1000000.0)};
}

LibeventTimerControl::LibeventTimerControl(Platform::TimeoutHandler* handler,
                                           Platform::EventPriority priority)
    : TimerControl(handler), eventPriority_(priority) {
  leInit();
  assign(&event_, -1, 0, nullptr, nullptr, eventPriority_);
  Impl::leControlAdded();
}

LibeventTimerControl::~LibeventTimerControl() {
  if (ended_ != nullptr) *ended_ = true;
  LibeventTimerControl::delTimeout();
  Impl::leControlRemoved(event_get_base(&event_));
}

void LibeventTimerControl::setTimeout(double seconds) {
  if (std::isnan(seconds)) BRELO_FAIL("LibeventTimerControl", "timeout is not a number");
  delTimeout();
  BRELO_TRACE(libeventTrace, 9, "LibeventTimerControl", "Timer {} set timeout {}",
              DisplayPointer(this), seconds);
  if (std::isinf(seconds) && seconds > 0) return;
  timeval const tv = toTimeval(seconds);
  assign(&event_, -1, 0, handleTimeout, this, eventPriority_);
  if (event_add(&event_, &tv) == 0) return;
  BRELO_TRACE(libeventTrace, 0, "LibeventTimerControl", "Timer {} is refused its timeout {}",
              DisplayPointer(this), seconds);
}

void LibeventTimerControl::delTimeout() {
  BRELO_TRACE(libeventTrace, 9, "LibeventTimerControl", "Timer {} del timeout",
              DisplayPointer(this));
  if (Impl::leMayTouch(event_)) event_del(&event_);
}

double LibeventTimerControl::remainingTimeout() const {
  timeval expiry;
  if (event_pending(&event_, EV_TIMEOUT, &expiry) == 0) {
    return std::numeric_limits<double>::infinity();
  }
  timeval now;
  gettimeofday(&now, nullptr);
  if (timercmp(&expiry, &now, <)) return 0.0;
  timeval rest;
  timersub(&expiry, &now, &rest);
  return static_cast<double>(rest.tv_sec) + static_cast<double>(rest.tv_usec) / 1e6;
}

void LibeventTimerControl::handleTimeout(int, short, void* self) {
  Impl::leHandlerBegins();
  try {
    static_cast<LibeventTimerControl*>(self)->handler();
  } catch (...) {
    Impl::leKeepException();
  }
}

void LibeventTimerControl::handler() {
  BRELO_TRACE(libeventTrace, 9, "LibeventTimerControl", "Timer {} expired", DisplayPointer(this));
  bool ended = false;
  ended_ = &ended;
  try {
    handler_->timeout();
  } catch (...) {
    // The handler may have ended this, and itself, before it threw.
    if (ended) throw;
    ended_ = nullptr;
    if (!handler_->handleTimeoutException()) throw;
    BRELO_TRACE(libeventTrace, 9, "LibeventTimerControl",
                "Timeout notification exception was handled");
    return;
  }
  if (!ended) ended_ = nullptr;
}

LibeventCallbackControl::LibeventCallbackControl(Platform::CallbackHandler* handler)
    : CallbackControl(handler), LibeventTimerControl(this, Platform::eventPriorityDefault) {}

LibeventCallbackControl::~LibeventCallbackControl() {
  LibeventCallbackControl::cancelCallback();
}

void LibeventCallbackControl::requestCallback() {
  BRELO_TRACE(libeventTrace, 9, "LibeventCallbackControl", "Callback {} request",
              DisplayPointer(this));
  LibeventTimerControl::setTimeout(0.0);
}

void LibeventCallbackControl::cancelCallback() {
  BRELO_TRACE(libeventTrace, 9, "LibeventCallbackControl", "Callback {} cancel",
              DisplayPointer(this));
  LibeventTimerControl::delTimeout();
  if (auto* const turns = Impl::leTurns()) turns->noCallbackIsNext();
}

bool LibeventCallbackControl::pendingCallback() const {
  return std::isfinite(remainingTimeout());
}

void LibeventCallbackControl::timeout() {
  BRELO_TRACE(libeventTrace, 9, "LibeventCallbackControl", "Callback {} execute",
              DisplayPointer(this));
  bool const& ended = *ended_;
  try {
    callHandler(*CallbackControl::handler_, ended);
  } catch (...) {
    tellTurns(false);
    throw;
  }
  tellTurns(!ended && armed());
}

void LibeventCallbackControl::callHandler(Platform::CallbackHandler& handler, bool const& ended) {
  try {
    handler.callback();
  } catch (...) {
    if (ended || !handler.handleCallbackException()) throw;
    BRELO_TRACE(libeventTrace, 9, "LibeventCallbackControl",
                "Callback notification exception was handled");
  }
}

void LibeventCallbackControl::timerPending(Platform::PendingList& list, double) const {
  list.addCallback(CallbackControl::handler_->handlerName());
}

LibeventFdControl::LibeventFdControl(Platform::FdEventHandler* handler) : FdControl(handler) {
  leInit();
  assign(&readEvent_, -1, 0, nullptr, nullptr, Platform::eventPriorityDefault);
  assign(&writeEvent_, -1, 0, nullptr, nullptr, Platform::eventPriorityDefault);
  Impl::leControlAdded();
}

LibeventFdControl::~LibeventFdControl() {
  if (ended_ != nullptr) *ended_ = true;
  if (Impl::leMayTouch(readEvent_)) LibeventFdControl::clearEvents();
  Impl::leControlRemoved(event_get_base(&readEvent_));
}

void LibeventFdControl::setReads(bool on) {
  reads_ = on && fd_ < 0;
  if (fd_ < 0) return;
  on ? turnReadsOn() : turnReadsOff();
  reads_ = on;
}

void LibeventFdControl::setReadsAgain(unsigned passes) {
  reads_ = fd_ < 0;
  if (fd_ < 0) return;
  turnReadsOn(passes);
  reads_ = true;
}

// A change of a watch costs a system call. Reads that a handler turns off therefore stay installed,
// unseen by the client, until the loop is about to look again, and for one look more: a client that
// has the loop to itself turns them on again when its turn comes, in the next pass. Where that was
// in vain they are withdrawn at once and join those that take turns, until the client is the only
// one to turn off twice in a row.
void LibeventFdControl::turnReadsOff() {
  readsOffPass_ = Impl::lePass();
  if (readsOffTurn_ == readsOffTurns) impatient_ = false;
  readsOffTurn_ = ++readsOffTurns;
  if (turns_ != nullptr) return impatient_ ? turns_->awaitNoMore(*this) : turns_->leave(*this);
  bool const installed = readEvent_.ev_fd != -1;
  if (readsOffPass_ == 0 || !installed || impatient_) return withdrawReads();
  if (!listed_.linked()) listed_.insertBefore(lingeringReads);
  Impl::leReadsTurnedOff();
}

void LibeventFdControl::turnReadsOn(unsigned leisure) {
  if (turns_ == nullptr) {
    if (listed_.linked()) return listed_.unlink();
    auto* const turns = impatient_ && pollable_ ? Impl::leTurns() : nullptr;
    if (turns != nullptr) turns->join(*this);
  }
  if (turns_ != nullptr && turns_->await(*this, leisure)) return;
  event_del(&readEvent_);
  watch(&readEvent_, EV_READ | EV_PERSIST, handleFdRead);
}

/// Whether the watch lingers during the next look.
bool LibeventFdControl::settleReads(bool now) {
  bool const looked = Impl::lePasses() > readsOffPass_;
  if (!now && !looked) return true;
  if (looked) impatient_ = true;
  withdrawReads();
  return false;
}

void LibeventFdControl::withdrawReads() {
  if (turns_ != nullptr) turns_->leave(*this);
  listed_.unlink();
  event_del(&readEvent_);
  readEvent_.ev_fd = -1;
}

bool Impl::leSettleReads(bool all) {
  bool lingers = false;
  Zel::forEach(lingeringReads, [&](LibeventFdControl& control) {
    if (control.settleReads(all)) lingers = true;
  });
  return lingers;
}

void LibeventFdControl::setWrites(bool on) {
  writes_ = on && fd_ < 0;
  if (fd_ < 0) return;
  event_del(&writeEvent_);
  writeEvent_.ev_fd = -1;
  if (on) watch(&writeEvent_, EV_WRITE, handleFdWrite);
  writes_ = on;
}

void LibeventFdControl::setFd(int fd) {
  if (fd == -1) return LibeventFdControl::delFd();
  if (turns_ != nullptr) turns_->leave(*this);
  fd_ = fd;
  pollable_ = true;
  int const flags = fcntl(fd, F_GETFL);
  assert(flags >= 0);
  int const result = fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  assert(result == 0);
  if (listed_.linked()) withdrawReads();
  try {
    if (reads_) {
      event_del(&readEvent_);
      watch(&readEvent_, EV_READ | EV_PERSIST, handleFdRead);
    }
    if (writes_) {
      event_del(&writeEvent_);
      watch(&writeEvent_, EV_WRITE, handleFdWrite);
    }
  } catch (...) {
    LibeventFdControl::delFd();
    throw;
  }
}

void LibeventFdControl::clearEvents() {
  withdrawReads();
  event_del(&writeEvent_);
  writeEvent_.ev_fd = -1;
}

void LibeventFdControl::delFd() {
  clearEvents();
  fd_ = -1;
}

// What epoll refuses because it cannot be polled, a regular file for instance, and what has been
// closed is always ready, so that the client meets an error itself.
void LibeventFdControl::watch(event* ev, short flags, event_callback_fn callback) {
  if (pollable_) {
    assign(ev, fd_, flags, callback, this, Platform::eventPriorityDefault);
    auto const warnings = Impl::leWarnings();
    if (event_add(ev, nullptr) == 0) return;
    int const error = errno;
    ev->ev_fd = -1;
    if (warnings == Impl::leWarnings()) throw std::bad_alloc();
    if (error != EPERM && error != EBADF) {
      throw std::system_error(error, std::generic_category(), "failed to watch a descriptor");
    }
    pollable_ = error != EPERM;
  }
  assign(ev, -1, 0, callback, this, Platform::eventPriorityDefault);
  readyAtNextPass(ev);
}

void LibeventFdControl::readyAtNextPass(event* ev) {
  timeval const now{};
  if (event_add(ev, &now) != 0) throw std::bad_alloc();
}

/// False if the handler has ended this.
template <class Notify>
bool LibeventFdControl::notify(Notify notify) {
  bool ended = false;
  ended_ = &ended;
  try {
    try {
      notify();
    } catch (...) {
      if (ended || !handler_->handleFdException(getFd())) throw;
    }
  } catch (...) {
    Impl::leKeepException();
  }
  if (!ended) ended_ = nullptr;
  return !ended;
}

/// A member whose reads stay on is told again at the next look.
void LibeventFdControl::takeTurn() {
  bool const lives = notify([this] { handler_->readFdEvent(getFd()); });
  if (lives && awaited_ && !armed_) watchAnew();
}

void LibeventFdControl::watchAnew() noexcept {
  try {
    turnReadsOn();
  } catch (...) {
    reads_ = false;
    Impl::leKeepException();
  }
}

void LibeventFdControl::handleFdRead(int, short what, void* self) {
  Impl::leHandlerBegins();
  auto* const control = static_cast<LibeventFdControl*>(self);
  if (!control->reads_) return;  // it lingers
  control->notify([control, what] {
    if ((what & EV_TIMEOUT) != 0) readyAtNextPass(&control->readEvent_);
    control->handler_->readFdEvent(control->getFd());
  });
}

void LibeventFdControl::handleFdWrite(int, short, void* self) {
  Impl::leHandlerBegins();
  auto* const control = static_cast<LibeventFdControl*>(self);
  control->notify([control] { control->handler_->writeFdEvent(control->getFd()); });
}

}  // namespace Brelo
