// The loop on libevent: its passes, its bound, and how an exception gets out of it.

#include <cerrno>
#include <chrono>
#include <exception>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

#include "Brelo/LibeventFactory.h"
#include "Brelo/platform/LibeventState.h"
#include "Brelo/platform/WaitObserver.h"

namespace Brelo {

using Impl::libeventTrace;

namespace {

thread_local std::exception_ptr keptException;
thread_local std::uint64_t passes = 0;
thread_local bool inPass = false;
thread_local bool passIsSingle = false;
thread_local bool stopAsked = false;

/// Bounds one run of the loop: breaks it `timeout` seconds after construction.
class EvLoopBreak {
 public:
  explicit EvLoopBreak(double timeout) {
    BRELO_TRACE(libeventTrace, 8, "EvLoopBreak", "{} timeout {}", DisplayPointer(this), timeout);
    event_assign(&event_, ev_base, -1, 0, handleBaseLoopBreak, this);
    eventPrioritySet(&event_, Platform::eventPriorityDefault);
    timeval const tv = toTimeval(timeout);
    if (event_add(&event_, &tv) != 0) throw std::bad_alloc();
  }
  EvLoopBreak(EvLoopBreak const&) = delete;
  EvLoopBreak& operator=(EvLoopBreak const&) = delete;
  ~EvLoopBreak() {
    BRELO_TRACE(libeventTrace, 9, "EvLoopBreak", "{}", DisplayPointer(this));
    event_del(&event_);
  }

  static bool isEventOfOne(event const& ev) {
    return event_get_callback(&ev) == handleBaseLoopBreak;
  }

 private:
  static void handleBaseLoopBreak(int, short, void* self) {
    Impl::leHandlerBegins();
    BRELO_TRACE(libeventTrace, 8, "EvLoopBreak", "{}", DisplayPointer(self));
    event_base_loopbreak(ev_base);
    event_del(&static_cast<EvLoopBreak*>(self)->event_);
  }

  event event_;
};

class Stretch;
thread_local Stretch* stretch = nullptr;  // while there are no reads to settle

/// Passes in a row as one call of libevent. An entry of libevent for each pass costs it several
/// locks, so that is done only while there are reads to settle between two.
class Stretch {
 public:
  Stretch() {
    event_assign(&end_, ev_base, -1, 0, handleEnd, this);
    eventPrioritySet(&end_, Platform::eventPriorityDefault);
  }
  Stretch(Stretch const&) = delete;
  Stretch& operator=(Stretch const&) = delete;
  ~Stretch() {
    stretch = nullptr;
    event_del(&end_);
  }

  /// Ends the stretch with the present pass: what is active now is served before.
  void end() { event_active(&end_, EV_TIMEOUT, 1); }
  /// Whether it was this that ended it; once.
  bool ended() { return std::exchange(ended_, false); }

 private:
  static void handleEnd(int, short, void* self) {
    Impl::leHandlerBegins();
    static_cast<Stretch*>(self)->ended_ = true;
    event_base_loopbreak(ev_base);
  }

  event end_;
  bool ended_ = false;
};

void endStretch() {
  if (stretch != nullptr) std::exchange(stretch, nullptr)->end();
}

/// Passes of a loop that tells its waits, in two calls of libevent: those that do not wait, until
/// one finds nothing, and then one that does. That one has waited until its first handler begins.
class ObservedPasses {
 public:
  static bool wanted() { return wanted_; }
  static void wantedIs(bool wanted) { wanted_ = wanted; }

  /// As `event_base_loop` of libevent.
  static int run() {
    int const result = event_base_loop(ev_base, EVLOOP_NONBLOCK);
    if (result != 0 || stopAsked || event_base_got_exit(ev_base) || event_base_got_break(ev_base)) {
      return result;
    }
    stretch = nullptr;
    waitBegan_ = Clock::now();
    errno = 0;
    int const waited = event_base_loop(ev_base, EVLOOP_ONCE);
    waitEnds();
    return waited;
  }

  static void waitEnds() {
    if (!waitBegan_) return;
    int const error = errno;
    Impl::tellWait(std::chrono::nanoseconds(Clock::now() - *waitBegan_).count());
    waitBegan_.reset();
    errno = error;
  }

 private:
  using Clock = std::chrono::steady_clock;

  static thread_local bool wanted_;
  static thread_local std::optional<Clock::time_point> waitBegan_;
};

thread_local bool ObservedPasses::wanted_ = false;
thread_local std::optional<std::chrono::steady_clock::time_point> ObservedPasses::waitBegan_;

void traceRefusal() {
  BRELO_TRACE(libeventTrace, 0, "Brelo", "the loop cannot be entered on base:{}",
              DisplayPointer(ev_base));
}

void eventLoopTimeout(double timeout) {
  BRELO_TRACE(libeventTrace, 5, "Brelo", "timeout {}", timeout);
  Impl::leDispatchFor(timeout);
}

}  // namespace

void Impl::leReadsTurnedOff() {
  endStretch();
}

void Impl::leKeepException() {
  keptException = std::current_exception();
  event_base_loopbreak(ev_base);
}

bool Impl::leExceptionKept() {
  return keptException != nullptr;
}

std::atomic<unsigned> Impl::leObservedLoops{0};

void Impl::leWaitsObservedIs(bool observed) {
  if (observed == ObservedPasses::wanted()) return;
  ObservedPasses::wantedIs(observed);
  observed ? ++leObservedLoops : --leObservedLoops;
  if (observed) endStretch();
}

void Impl::leHandlerAfterWait() {
  ObservedPasses::waitEnds();
}

void Impl::leStop() {
  stopAsked = true;
  endStretch();
}

bool Impl::leIsBound(event const& ev) {
  return EvLoopBreak::isEventOfOne(ev);
}

std::uint64_t Impl::lePasses() {
  return passes;
}

std::uint64_t Impl::lePass() {
  return inPass ? passes : 0;
}

bool Impl::lePassEndsLoop() {
  return !inPass || passIsSingle;
}

// One pass of the loop:
//
// 1. Reads that a handler has turned off and that have lingered for one more look are taken out
//    of the base (see LibeventFdControl::turnReadsOff). Where there are none this takes no step:
//    such passes are one call of libevent, and two where its waits are told.
// 2. libevent looks at the descriptors: without waiting if a timer is due or such reads are left,
//    else until the first timer or descriptor is. Timers that are due and descriptors that are
//    ready become active, each at its priority.
// 3. Everything active at `eventPriorityStrictHigh` is served: the master timers of the schedulers'
//    wheels. Their handlers only queue tasks.
// 4. After one more look, what is active at `eventPriorityDefault` is served: callbacks, timers,
//    descriptors, the loop's bound. A scheduler's run is one of these callbacks.
//
// An exception that a handler lets pass is kept, the loop breaks, and the loop's entry throws it.
// The pass in which a stop is asked for is the last one, and so is the first one of an entry for
// which that was done before; it does not wait.
//
// Not ordered: events of one priority among each other, and the two directions of one descriptor. A
// callback asked for during a pass runs in a later one.
bool Impl::leDispatch() {
  if (inPass) {
    traceRefusal();
    return false;
  }
  int result;
  int error;
  Stretch passesInARow;
  do {
    bool const lingers = leSettleReads(false);
    bool const single = lingers || stopAsked;
    bool const observed = !single && ObservedPasses::wanted();
    stretch = single ? nullptr : &passesInARow;
    passIsSingle = single || observed;
    ++passes;
    inPass = true;
    errno = 0;
    result = observed ? ObservedPasses::run()
                      : event_base_loop(ev_base, single ? EVLOOP_ONCE | EVLOOP_NONBLOCK : 0);
    error = errno;
    inPass = false;
  } while (result == 0 && !stopAsked && !event_base_got_exit(ev_base) &&
           (passesInARow.ended() || !event_base_got_break(ev_base)));
  leSettleReads(true);
  if (result < 0) {
    if (error != 0) {
      throw std::system_error(error, std::generic_category(), "failed to wait for descriptors");
    }
    traceRefusal();
    return false;
  }
  if (keptException) std::rethrow_exception(std::exchange(keptException, nullptr));
  return std::exchange(stopAsked, false);
}

bool Impl::leDispatchFor(double timeout) {
  EvLoopBreak const loopBreak(timeout);
  return leDispatch();
}

void doLeEventLoop() {
  leInit();
  if (leFastForward()) Impl::leSkipFirstWait();
  Impl::leDispatch();
}

void doLeEventLoop(double timeout) {
  BRELO_TRACE(libeventTrace, 5, "Brelo", "timeout {}", timeout);
  leInit();
  if (!leFastForward()) return eventLoopTimeout(timeout);
  double const end = time() + timeout;
  while (!Impl::eventLoopFastForwardToFirstTimer(end - time()) && end > time()) {
  }
}

void doLeEventLoopInWaitfor(double maxTimeout) {
  BRELO_TRACE(libeventTrace, 5, "Brelo", "maxTimeout {}", maxTimeout);
  leInit();
  if (!leFastForward()) return eventLoopTimeout(maxTimeout);
  Impl::eventLoopFastForwardToFirstTimer(maxTimeout);
}

}  // namespace Brelo
