#pragma once

#include <atomic>
#include <cstdint>

#include "Brelo/TaskTimeDuration.h"

namespace Brelo {

namespace Impl {
struct RunObservation;
}

class TaskImpl;

/// The innermost run of a root's tree, for who looks from beside its loop: another thread, or the
/// handler of a signal on the root's own. See `TaskSchedulerRoot::runMark`.
class RunMark {
 public:
  /// A run, or the part of one in which no other ran, or a time without runs.
  class Phase {
   public:
    /// From the `word()` of another; without one, a time without runs since the clock's zero.
    constexpr explicit Phase(std::uint64_t word = 0) : word_(word) {}
    /// Of a run, and of a time without runs, that began then.
    /// @{
    static Phase runs(TaskTimePoint since) { return Phase(bits(since) | 1); }
    static Phase idles(TaskTimePoint since) { return Phase(bits(since)); }
    /// @}

    bool running() const { return (word_ & 1) != 0; }  ///< a run
    /// When it began, in nanoseconds of the monotonic clock.
    std::int64_t since() const { return static_cast<std::int64_t>(word_ >> 1); }
    std::uint64_t word() const { return word_; }  ///< all of it in one number

    /// Of the same kind, and begun in the same nanosecond.
    /// @{
    friend bool operator==(Phase a, Phase b) { return a.word_ == b.word_; }
    friend bool operator!=(Phase a, Phase b) { return !(a == b); }
    /// @}

   private:
    static std::uint64_t bits(TaskTimePoint time) {
      return static_cast<std::uint64_t>(time.time_since_epoch().count()) << 1;
    }

    std::uint64_t word_;
  };

  /// The phase at the moment. Any thread, and signal handlers.
  Phase phase() const { return Phase(phase_.load(std::memory_order_acquire)); }
  /// What runs; not null while the phase is that of a run. On the root's thread.
  TaskImpl const* task() const { return task_.load(std::memory_order_relaxed); }
  /// The next change of the phase that sees this calls `RunObserver::runMarkChanged()` once. Any
  /// thread, and signal handlers. Whoever has to know that a change sees it puts a barrier for all
  /// threads behind this, and looks at the phase then.
  void tellNextChange() { tellNextChange_.store(true, std::memory_order_release); }

 private:
  friend struct Impl::RunObservation;
  friend class TaskSchedulerRoot;

  // True if the change is to be told. A handler amid these finds a task that is still there.
  bool runStarts(TaskImpl const& task, TaskTimePoint start) {
    task_.store(&task, std::memory_order_relaxed);
    return phaseIs(Phase::runs(start));
  }
  bool runEnds(TaskImpl const* outer, TaskTimePoint end) {
    bool const tell = phaseIs(outer != nullptr ? Phase::runs(end) : Phase::idles(end));
    task_.store(outer, std::memory_order_relaxed);
    return tell;
  }
  bool phaseIs(Phase phase) {
    phase_.store(phase.word(), std::memory_order_release);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return tellNextChange_.load(std::memory_order_relaxed);
  }
  bool takeTellNextChange() { return tellNextChange_.exchange(false, std::memory_order_acquire); }
  void clear() {
    phaseIs(Phase());
    task_.store(nullptr, std::memory_order_relaxed);
    takeTellNextChange();
  }

  std::atomic<std::uint64_t> phase_{0};
  std::atomic<TaskImpl const*> task_{nullptr};
  std::atomic<bool> tellNextChange_{false};
};

}  // namespace Brelo
