#include "Brelo/TimerWheel.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/MemTrack.h"
#include "Brelo/platform/Backend.h"
#include "Brelo/platform/Pending.h"
#include "Brelo/platform/TimerWheelTrace.h"

namespace Brelo {

using Impl::timerWheelTrace;

ModuleTrace const Impl::timerWheelTrace("BreloTimerWheel");

namespace {

constexpr timeout_t ticksPerSecond = 100;
constexpr double never = std::numeric_limits<double>::infinity();

// Of the buffer that a pass leaves to the next one: a burst of more gives its memory back.
constexpr std::size_t mostKept = 4096;

/// The tick that a number of ticks lies in, the first or the last one for a number beyond them.
timeout_t toTick(double ticks) {
  if (!(ticks > 0)) return 0;
  if (ticks >= 0x1p64) return std::numeric_limits<timeout_t>::max();
  return static_cast<timeout_t>(ticks);
}

// An expiry is rounded down and the present up, so that the wheel releases a timer early, by
// less than two ticks, and never late.
timeout_t expiryTick(double expiry) {
  return toTick(ticksPerSecond * expiry);
}
timeout_t currentTick(double now) {
  return toTick(std::ceil(ticksPerSecond * now));
}

}  // namespace

TimerWheel::TimersAtTimeout::TimersAtTimeout() {
  tqh_first = nullptr;
  tqh_last = &tqh_first;
}

TimerWheel::TimersAtTimeout::~TimersAtTimeout() {
  if (tqh_first != nullptr) BRELO_FAIL("TimersAtTimeout", "Destroyed while non-empty");
}

void TimerWheel::TimersAtTimeout::pushBack(struct timeout* link) {
  if (link->pending != nullptr) {
    BRELO_FAIL("TimersAtTimeout", "pending set to {}", DisplayPointer(link->pending));
  }
  link->pending = this;
  link->tqe.tqe_next = nullptr;
  link->tqe.tqe_prev = tqh_last;
  *tqh_last = link;
  tqh_last = &link->tqe.tqe_next;
}

void TimerWheel::TimersAtTimeout::unlink(struct timeout* link) {
  *link->tqe.tqe_prev = link->tqe.tqe_next;
  if (link->tqe.tqe_next != nullptr) {
    link->tqe.tqe_next->tqe.tqe_prev = link->tqe.tqe_prev;
  } else {
    tqh_last = link->tqe.tqe_prev;
  }
  link->pending = nullptr;
}

void TimerWheel::TimersAtTimeout::unlinkFromOwn(struct timeout* link) {
  static_cast<TimersAtTimeout*>(link->pending)->unlink(link);
}

void TimerWheel::TimersAtTimeout::checkLinked(struct timeout const* link) const {
  if (link->pending != this) {
    BRELO_FAIL("TimersAtTimeout", "Event {} linked to {}", DisplayPointer(link),
               DisplayPointer(link->pending));
  }
}

TimerWheel::TimerWheel(Platform::EventPriority priority)
    : masterTimerExpiry_(never),
      masterTimer_(Platform::getTimerControl(this, priority)),
      wheel_(timeouts_open(ticksPerSecond, &openError_)) {
  if (openError_ != 0) BRELO_FAIL("TimerWheel", "Error code {}", openError_);
  setCurrentTime(time());
}

TimerWheel::~TimerWheel() {
  timeouts_close(wheel_);
}

void TimerWheel::setCurrentTime(double now) {
  timeout_t const tick = currentTick(now);
  BRELO_TRACE(timerWheelTrace, 8, "TimerWheel", "advance time to {} tick {}", now, tick);
  timeouts_update(wheel_, tick);
}

void TimerWheel::timerStart(TimerWheelEvent* event, double seconds) {
  event->prefetch();
  timerStart(event, seconds, time());
}

// Inlines all that moves a timer, as TimerTask does.
[[gnu::flatten]] void TimerWheel::timerStart(TimerWheelEvent* event, double seconds, double now) {
  if (std::isnan(seconds)) BRELO_FAIL("TimerWheel", "timeout is not a number");
  double const expiry = now + seconds;
  if (expiry == event->expirationTime_) return;
  if (event->expirationTime_ != never) timerStop(event);
  if (expiry == never) return;
  event->expirationTime_ = expiry;
  timeout_t const tick = expiryTick(expiry);
  BRELO_TRACE(timerWheelTrace, 9, "TimerWheel", "timer {} set timeout {} expire at {} tick {}",
              DisplayPointer(event), seconds, expiry, tick);
  timeouts_add(wheel_, &event->timeoutLink_, tick);
  event->stateIs(TimerWheelState::inTimerWheel);
  if (masterTimerExpiry_ > expiry) setMasterTimer();
}

void TimerWheel::timerStop(TimerWheelEvent* event) {
  if (event->expirationTime_ == never) {
    BRELO_TRACE(timerWheelTrace, 9, "TimerWheel", "timer {} del timeout, not running",
                DisplayPointer(event));
    return;
  }
  BRELO_TRACE(timerWheelTrace, 9, "TimerWheel", "timer {} del timeout", DisplayPointer(event));
  switch (event->state()) {
    case TimerWheelState::inTimerWheel:
      timeouts_del(wheel_, &event->timeoutLink_);
      event->stateIs(TimerWheelState::notLinked);
      break;
    case TimerWheelState::inTimersExpiryingSoon:
      timersExpiryingSoonRemove(event);
      break;
    case TimerWheelState::notLinked:
      BRELO_FAIL("TimerWheel", "Not linked but expirationTime={}", event->expirationTime_);
  }
  event->expirationTime_ = never;
}

void TimerWheel::timersExpiryingSoonRemove(TimerWheelEvent* event) {
  if (event->state() != TimerWheelState::inTimersExpiryingSoon) {
    BRELO_FAIL("TimerWheel", "Removing from timersExpiryingSoon in state {}",
               timerWheelStateToString(event->state()));
  }
  if (event->timeoutLink_.pending == nullptr) BRELO_FAIL("TimerWheel", "No timersAtTimeout");
  TimersAtTimeout::unlinkFromOwn(&event->timeoutLink_);
  event->stateIs(TimerWheelState::notLinked);
}

double TimerWheel::firstExpiryTime() const {
  for (auto const& [expiry, timers] : timersExpiryingSoon) {
    if (timers.first() != nullptr) return expiry;
  }
  return never;
}

// No part of moving a timer: few starts come here.
[[gnu::noinline]] void TimerWheel::setMasterTimer() {
  double const now = time();
  setCurrentTime(now);
  if (double const first = firstExpiryTime(); first != never) {
    if (now >= first) {
      BRELO_TRACE(timerWheelTrace, 8, "TimerWheel",
                  "has expired timers, firstExpiryTime={} now={}, set master timer timeout 0",
                  first, now);
      masterTimer_->setTimeout(0.0);
    } else {
      BRELO_TRACE(timerWheelTrace, 8, "TimerWheel",
                  "has scheduled timers, firstExpiryTime={} now={}, set master timer timeout {}",
                  first, now, first - now);
      masterTimer_->setTimeout(first - now);
    }
    masterTimerExpiry_ = first;
  } else if (timeouts_expired(wheel_)) {
    BRELO_TRACE(timerWheelTrace, 8, "TimerWheel", "has expired timers, set master timer timeout 0");
    masterTimer_->setTimeout(0.0);
    masterTimerExpiry_ = 0.0;
  } else if (timeouts_pending(wheel_)) {
    timeout_t const ticks = timeouts_timeout(wheel_);
    double const seconds = static_cast<double>(ticks) / double{ticksPerSecond};
    BRELO_TRACE(timerWheelTrace, 8, "TimerWheel",
                "has scheduled timers, first timer expiry in {} ticks, set master timer timeout {}",
                ticks, seconds);
    masterTimer_->setTimeout(seconds);
    masterTimerExpiry_ = seconds + now;
  } else {
    BRELO_TRACE(timerWheelTrace, 8, "TimerWheel", "has no timers, del master timer timeout");
    masterTimer_->delTimeout();
    masterTimerExpiry_ = never;
  }
}

void TimerWheel::drainWheel() {
  std::size_t moved = 0;
  try {
    // Sorted first, since a map takes sorted keys in constant time and lays them out in order.
    while (timeouts_expired(wheel_)) {
      std::size_t const order = released_.size();
      Released& released = released_.emplace_back();
      released.event = TimerWheelEvent::timeoutLink2TimerWheelEvent(timeouts_get(wheel_));
      released.expiry = released.event->expirationTime_;
      released.order = order;
      released.event->stateIs(TimerWheelState::notLinked);
    }
    std::sort(released_.begin(), released_.end());
    for (auto next = timersExpiryingSoon.end(); moved < released_.size(); ++moved, ++next) {
      Released const& released = released_[moved];
      next = timersExpiryingSoon.try_emplace(next, released.expiry);
      released.event->stateIs(TimerWheelState::inTimersExpiryingSoon);
      next->second.pushBack(&released.event->timeoutLink_);
    }
  } catch (...) {
    putBack(moved);
    throw;
  }
  released_.clear();
  if (released_.capacity() > mostKept) released_.shrink_to_fit();
}

/// Memory has run out: the wheel gets back what it has released, from that one on, in front of what
/// it has not, to release it at the next pass.
void TimerWheel::putBack(std::size_t first) {
  TimersAtTimeout behind;
  while (struct timeout* const link = timeouts_get(wheel_))
    behind.pushBack(link);
  auto const add = [this](struct timeout* link) {
    timeouts_add(wheel_, link,
                 expiryTick(TimerWheelEvent::timeoutLink2TimerWheelEvent(link)->expirationTime_));
  };
  for (; first < released_.size(); ++first) {
    add(&released_[first].event->timeoutLink_);
    released_[first].event->stateIs(TimerWheelState::inTimerWheel);
  }
  while (struct timeout* const link = behind.first()) {
    behind.unlink(link);
    add(link);
  }
  released_.clear();
  masterTimer_->setTimeout(0.0);
  masterTimerExpiry_ = 0.0;
}

void TimerWheel::timeout() {
  BRELO_TRACE(timerWheelTrace, 8, "TimerWheel", "master timer expired");
  auto const keepsThis = weak_from_this().lock();
  double const now = time();
  setCurrentTime(now);
  drainWheel();
  // The first entry is looked up anew after each handler, which may stop other timers and may
  // run the loop, and with it this function.
  while (!timersExpiryingSoon.empty()) {
    auto const at = timersExpiryingSoon.begin();
    if (at->first > now) {
      BRELO_TRACE(timerWheelTrace, 9, "TimerWheel",
                  "Defer processing timers with expiry time {} > now {}", at->first, now);
      break;
    }
    TimersAtTimeout& timers = at->second;
    struct timeout* const link = timers.first();
    if (link == nullptr) {
      timersExpiryingSoon.erase(at);
      continue;
    }
    timers.checkLinked(link);
    timers.unlink(link);
    TimerWheelEvent* const event = TimerWheelEvent::timeoutLink2TimerWheelEvent(link);
    event->stateIs(TimerWheelState::notLinked);
    timerExpired(event);
  }
  setMasterTimer();
}

/// The master timer stands for the timers of the wheel.
void TimerWheel::timerPending(Platform::PendingList& list, double remaining) const {
  struct Report {
    Platform::PendingList& list;
    double now;
    bool idle = true;

    void add(struct timeout const* link) {
      idle = false;
      auto const* const event = TimerWheelEvent::timeoutLink2TimerWheelEvent(link);
      list.addTimer(event->timerName(), event->expirationTime_ - now);
    }
  } report{list, time()};
  timeouts_each(
      wheel_,
      [](struct timeout const* link, void* argument) { static_cast<Report*>(argument)->add(link); },
      &report);
  for (auto const& [expiry, timers] : timersExpiryingSoon) {
    for (auto const* link = timers.first(); link != nullptr; link = link->tqe.tqe_next)
      report.add(link);
  }
  if (report.idle) list.addIdleWheel(remaining);
}

void TimerWheel::timerExpired(TimerWheelEvent* event) {
  BRELO_TRACE(timerWheelTrace, 9, "TimerWheel", "timer {} expired", DisplayPointer(event));
  event->expirationTime_ = never;
  event->timeout();
}

std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(Platform::EventPriority priority) {
  return makeTracked<TimerWheel>(priority);
}

std::shared_ptr<TimerWheel> getTimerWheel() {
  if (Platform::backend().kind == Platform::BackendKind::libevent) {
    thread_local auto const wheel = makeTracked<TimerWheel>(Platform::eventPriorityDefault);
    return wheel;
  }
  static auto const wheel = makeTracked<TimerWheel>(Platform::eventPriorityDefault);
  return wheel;
}

}  // namespace Brelo
