#include "Zel/internal/ActivityLoop.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "Zel/System.h"
#include "Zel/internal/SystemClock.h"
#include "Zel/internal/TimerSlack.h"

namespace Zel {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

std::int64_t roundUpToNanoseconds(double seconds) {
  return static_cast<std::int64_t>(std::ceil(seconds * 1e9));
}

}  // namespace

/// The activity lock, as far as this run has taken it: an outer run, or a guard around this
/// one, that holds it on this thread keeps it throughout.
class ActivityLoop::Hold {
 public:
  explicit Hold(ActivityLock& lock) : lock_(lock), taken_(lock.lock()) {}
  ~Hold() {
    if (taken_) lock_.unlock();
  }
  Hold(Hold const&) = delete;
  Hold& operator=(Hold const&) = delete;

  template <class Action>
  void letGoDuring(Action&& action) {
    if (!taken_) return action();
    lock_.unlock();
    taken_ = false;
    action();
    taken_ = lock_.lock();
  }

  /// Lets a thread that sleeps on the lock have it. To unlock is not enough: the loop would
  /// have it back before that thread is awake.
  void shareIfWanted() {
    if (!lock_.contended() || !taken_) return;
    letGoDuring([] {
      timespec const moment{0, 1};
      nanosleep(&moment, nullptr);
    });
  }

 private:
  ActivityLock& lock_;
  bool taken_;
};

struct ActivityLoop::Run {
  Hold hold;
  std::optional<double> end;
  TimerSlack slack;
};

// One pass of the loop:
//
// A thread that sleeps on the activity lock has it before the pass begins.
// 1. Look at the descriptors: without waiting if a clock notifiee is due, and otherwise
//    until one becomes ready, the first notifiee is due or the execution time is over. Under
//    virtual time do not wait but, if nothing is ready, move the clock, unless to the end of its
//    range. The activity lock is let go of during a wait. The time after the wait is the time of
//    this pass.
// 2. Tell the descriptors what step 1 found, readable before writable. One that a handler
//    has unbound, bound or turned off since is passed over.
// 3. Tell the time to every notifiee that is due, those included that step 2 armed for a time
//    already past: the earliest `timeMin` first, among equals the one that asked first. It is
//    disarmed before it is told. One that a handler of this step disarms or arms anew is
//    passed over, and in the latter case waits for a later pass.
//
// So a readiness and the run that it asks for share a pass, and the readiness is not reported
// once more after that run has drained it.
//
// A pass that begins at the end of the execution time or later is the last one, so what has
// been armed for a time before the end is told. So is the one in which a stop is asked for, and
// the first one of a run for which that was done before; it does not wait.
//
// Not ordered: descriptors among each other, except that objects on one number are told in
// the order of binding. Nothing is looked at again between step 1 and the end of step 3.
//
// A run inside a handler, or the first one after an exception, begins with what the pass that
// was interrupted has left of steps 2 and 3. So nobody who throws at each pass keeps the others
// from being told.
bool ActivityLoop::pass(Run& run) {
  run.hold.shareIfWanted();
  if (run.end || clock_.undecided()) clock_.nowIs(System::currentTime());
  descriptors_.prepare();
  clock_.collect();
  if (clock_.due() || stopped_) {
    descriptors_.poll();
  } else if (!waitForFirst(run)) {
    return false;
  }
  double const began = clock_.now();
  tell();
  return !run.end || began < *run.end;
}

/// Steps 2 and 3.
void ActivityLoop::tell() {
  if (descriptors_.found()) {
    descriptors_.deliver();
    clock_.collect();
  }
  while (clock_.tellNext()) {
  }
}

void ActivityLoop::run() {
  Run run{Hold(lock_), std::nullopt, {}};
  if (auto const seconds = config_.takeExecutionTime()) {
    run.end = System::currentTime() + std::max(*seconds, 0.0);
    if (*seconds < infinity) run.end = std::min(*run.end, ClockQueue::lastTime);
  }
  if (descriptors_.found() || clock_.due()) {
    clock_.collect();
    tell();
  }
  while (pass(run) && !stopped_) {
  }
  stopped_ = false;
}

/// Step 1 with nothing due. False if there is nothing to wait for.
bool ActivityLoop::waitForFirst(Run& run) {
  descriptors_.askAfterUnread();
  double const first = std::min(clock_.first(), run.end.value_or(infinity));
  if (first == infinity) {
    if (!run.end && !descriptors_.watching()) return false;
    look(run, DescriptorSet::forEver);
    return true;
  }

  // Where the clock's range ends nothing is due, and no later time could be waited for from there.
  bool const skip = config_.virtualTime() && first < ClockQueue::lastTime;
  std::int64_t const left = roundUpToNanoseconds(std::max(first - clock_.now(), 0.0));
  look(run, skip ? 0 : left);
  if (skip && !descriptors_.found()) {
    advanceCurrentTime(left);
    if (auto const hook = config_.waitHook()) hook(left);
  }
  clock_.nowIs(System::currentTime());
  clock_.collect();
  return true;
}

void ActivityLoop::look(Run& run, std::int64_t nanoseconds) {
  if (nanoseconds == 0 || descriptors_.isReady()) {
    descriptors_.poll();
  } else {
    if (nanoseconds != DescriptorSet::forEver) run.slack.takeOff();
    auto const hook = config_.waitHook();
    std::int64_t const began = hook != nullptr ? monotonicNanoseconds() : 0;
    run.hold.letGoDuring([&] { descriptors_.wait(nanoseconds); });
    if (hook != nullptr) hook(monotonicNanoseconds() - began);
    descriptors_.sift();
  }
}

}  // namespace Zel
