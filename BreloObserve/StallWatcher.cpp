#include "BreloObserve/internal/StallWatcher.h"

#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "BreloDaemon/internal/AllSignalsBlocked.h"
#include "BreloObserve/internal/StallText.h"

namespace BreloObserve::Impl {

namespace {

// A watcher that looks so late did not run, and neither, as a rule, did the loop.
constexpr std::int64_t stopped = 100'000'000;

}  // namespace

StallWatcher::StallWatcher(StallSlot& slot, std::int64_t limit, std::int64_t lasting)
    : slot_(slot), limit_(limit), lasting_(std::max(lasting, limit)), process_(getpid()) {
  BreloDaemon::Impl::AllSignalsBlocked const blocked;
  if (int const error = pthread_create(&thread_, nullptr, &StallWatcher::enter, this))
    throw std::system_error(error, std::generic_category(), "StallDetector: thread");
}

StallWatcher::~StallWatcher() {
  if (getpid() != process_) return;
  stopping_.store(true, std::memory_order_relaxed);
  slot_.doorbell.ring();
  pthread_join(thread_, nullptr);
}

void* StallWatcher::enter(void* self) {
  pthread_setname_np(pthread_self(), "brelo:stalls");
  static_cast<StallWatcher*>(self)->watch();
  return nullptr;
}

void StallWatcher::watch() {
  nextLook_ = Doorbell::never;
  for (;;) {
    std::uint32_t const rings = slot_.doorbell.rings();
    if (stopping()) return;
    nextLook_ = look(clockNow(CLOCK_MONOTONIC));
    slot_.doorbell.wait(rings, nextLook_);
  }
}

std::int64_t StallWatcher::look(std::int64_t now) {
  Brelo::RunMark::Phase const phase = slot_.phase();
  bool const changed = phase != phase_;
  if (changed) {
    phase_ = phase;
    phaseBegins(now);
  } else if (now - stopped - limit_ > nextLook_) {
    since_ = now;  // the run gets its limit once more
  }
  cpuAtLook_ = slot_.cpuTime();
  if (phase.running()) return lookAtRun(now);
  if (!changed && slot_.sleepsAfter(phase)) return Doorbell::never;
  return now + limit_ / 2;
}

void StallWatcher::phaseBegins(std::int64_t now) {
  slot_.withdraw();
  asked_ = false;
  since_ = phase_.since();
  nextTelling_ = since_ + lasting_;
  // What the thread has used since it began, if it has not used it since the last look before.
  std::int64_t const cpu = slot_.cpuTime();
  cpuAtStart_ = cpu - std::clamp<std::int64_t>(now - since_, 0, cpu - cpuAtLook_);
}

std::int64_t StallWatcher::lookAtRun(std::int64_t now) {
  std::int64_t const due = since_ + limit_;
  if (now < due) return std::min(due, now + limit_ / 2);
  if (!asked_) {
    asked_ = true;
    sent_ = false;
    ask(now + limit_);
  }
  // The end of a run that has been caught rings.
  if (now < nextTelling_) return slot_.answered() ? nextTelling_ : now + limit_;
  // It may be elsewhere by now.
  sent_ = false;
  ask(now + limit_);
  if (slot_.phase() != phase_ || stopping()) return now;
  tellThatItLasts(now);
  nextTelling_ = now + (now - phase_.since());
  return nextTelling_;
}

/// Waits for the answer, too, unless the run or this ends.
void StallWatcher::ask(std::int64_t until) {
  for (;;) {
    std::uint32_t const rings = slot_.doorbell.rings();
    if (!sent_) sent_ = slot_.ask(phase_, cpuAtStart_);
    if (slot_.answered() || slot_.phase() != phase_ || stopping()) return;
    std::int64_t const now = clockNow(CLOCK_MONOTONIC);
    if (now >= until) return;
    slot_.doorbell.wait(rings, std::min(until, now + limit_ / 4));
  }
}

void StallWatcher::tellThatItLasts(std::int64_t now) const {
  StallCatch const* const found = slot_.answered() ? &slot_.found() : nullptr;
  writeLasting(found, now - phase_.since(), slot_.cpuTime() - cpuAtStart_);
}

}  // namespace BreloObserve::Impl
