#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "BreloObserve/internal/StallSlot.h"

namespace BreloObserve::Impl {

/// The thread that watches a loop through its slot. While runs come it looks twice in each limit,
/// and in a run at the time of its limit; when nothing has run between two looks it sleeps until
/// something does.
class StallWatcher {
 public:
  /// Starts it, or throws `std::system_error`. The times are in nanoseconds.
  StallWatcher(StallSlot& slot, std::int64_t limit, std::int64_t lasting);
  StallWatcher(StallWatcher const&) = delete;
  StallWatcher& operator=(StallWatcher const&) = delete;
  /// Waits for its end. In a forked child, which does not have it, there is nothing to wait for.
  ~StallWatcher();

 private:
  static void* enter(void* self);
  void watch();
  /// Returns when to look again.
  std::int64_t look(std::int64_t now);
  std::int64_t lookAtRun(std::int64_t now);
  void phaseBegins(std::int64_t now);
  void ask(std::int64_t until);
  void tellThatItLasts(std::int64_t now) const;

  bool stopping() const { return stopping_.load(std::memory_order_relaxed); }

  StallSlot& slot_;
  std::int64_t const limit_;
  std::int64_t const lasting_;
  pid_t const process_;
  pthread_t thread_;
  std::atomic<bool> stopping_{false};

  // The watcher's own.
  Brelo::RunMark::Phase phase_;
  std::int64_t since_ = 0;        // from when on the phase counts
  std::int64_t nextLook_ = 0;     // as it was meant
  std::int64_t nextTelling_ = 0;  // of a run that lasts
  std::int64_t cpuAtLook_ = 0;
  std::int64_t cpuAtStart_ = 0;  // of the phase; too early by half a limit at most
  bool asked_ = false;
  bool sent_ = false;
};

}  // namespace BreloObserve::Impl
