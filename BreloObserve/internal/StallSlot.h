#pragma once

#include <pthread.h>
#include <signal.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>

#include "Brelo/RunMark.h"
#include "BreloObserve/internal/Doorbell.h"
#include "BreloObserve/internal/StackTaker.h"

namespace BreloObserve::Impl {

/// Nanoseconds.
std::int64_t clockNow(clockid_t clock);

/// What the handler has found amid a run.
struct StallCatch {
  std::int64_t started;  ///< the phase of the run
  TakenStack stack;
  std::array<char, 256> group;  ///< cut to fit, with a null byte at the end
  std::array<char, 256> name;   ///< as `group`
};

/// What a loop's thread, the handler of a signal on it, and a watcher share. Slots are used again
/// but never freed: a signal that comes late finds one that asks for nothing.
class StallSlot {
 public:
  /// One for the calling thread, its root's mark, and its signal, which gets its handler. Throws.
  static StallSlot& forThisThread(int signal, Brelo::RunMark& mark);
  void release();  ///< there is no watcher any more, and soon no mark

  // The loop's thread.

  /// A change of the phase has been told. Wakes the watcher if it waits for one. True if the phase
  /// that has ended was caught: it is then in `found()`, up to the next change.
  bool attend();
  /// The phase that goes on has been caught.
  bool isCaught() const { return (attention_.load(std::memory_order_relaxed) & caught) != 0; }
  StallCatch const& found() const { return found_; }
  std::int64_t cpuAtStart() const { return cpuAtStart_.load(std::memory_order_relaxed); }

  // The watcher.

  Brelo::RunMark::Phase phase() const { return mark_->phase(); }
  /// Asks the thread for a catch of `phase`. False if the signal cannot be sent at the moment.
  bool ask(Brelo::RunMark::Phase phase, std::int64_t cpuAtStart);
  /// The thread has answered, with what is in `found()` until the next question.
  bool answered() const { return asked_.load(std::memory_order_acquire) == 0; }
  void withdraw() { asked_.store(0, std::memory_order_release); }
  /// From here on the first run to start wakes the watcher. False if one may have started.
  bool sleepsAfter(Brelo::RunMark::Phase phase);
  std::int64_t cpuTime() const { return clockNow(cpuClock_); }  ///< of the loop's thread

  Doorbell doorbell;  ///< the watcher's

 private:
  static constexpr std::uint32_t asleep = 1;
  static constexpr std::uint32_t caught = 2;

  static void handle(int signal, siginfo_t* info, void* context);
  static StallSlot* asking(siginfo_t const& info);
  static void install(int signal);
  void take(void const* context);

  std::atomic<std::uint32_t> attention_{0};
  std::atomic<std::uint64_t> asked_{0};
  std::atomic<std::int64_t> cpuAtStart_{0};
  std::atomic<bool> inUse_{true};
  StallSlot* next_ = nullptr;
  StackTaker const taker_;
  StallCatch found_;
  Brelo::RunMark* mark_ = nullptr;
  pid_t thread_ = 0;
  clockid_t cpuClock_ = CLOCK_THREAD_CPUTIME_ID;
  int signal_ = 0;
  bool barriers_ = false;  // the kernel makes them for the watcher
};

}  // namespace BreloObserve::Impl
