#pragma once

namespace Zel {

/// Makes the calling thread's waits exact, from the first `takeOff()` on until this ends.
///
/// The kernel lets waits last longer by a slack that each thread has, 50 us if nobody has changed
/// it, so that it can fold wake-ups. A thread's slack is its own: it is given back, unless it has
/// been changed meanwhile. Threads started meanwhile inherit that they have none; a forked child
/// gets back what its parent had.
class TimerSlack {
 public:
  TimerSlack() = default;
  TimerSlack(TimerSlack const&) = delete;
  TimerSlack& operator=(TimerSlack const&) = delete;
  ~TimerSlack() {
    if (taken_) giveBack();
  }

  void takeOff() {
    if (!asked_) tryToTakeOff();
  }

  /// In a forked child, of the thread that goes on in it.
  static void forked() { giveBack(); }

 private:
  void tryToTakeOff();
  static void giveBack();

  bool asked_ = false;
  bool taken_ = false;
};

}  // namespace Zel
