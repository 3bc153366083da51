#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "Brelo/Export.h"
#include "Brelo/TimerTask.h"
#include "BreloDaemon/FunctionTask.h"

namespace BreloDaemon {

/// A timer task from a callable, for one time or for a period. Letting go of it cancels it, also
/// from inside of the work. Belongs to the scheduler's thread. Asked to stop (see StopStep) it is
/// cancelled, and takes no new time.
class BRELO_EXPORT FunctionTimer {
 public:
  /// Idle. `work` is called in each run, as `work(task)` or `work()`; see FunctionTask.
  template <class Callable>
  FunctionTimer(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
                std::string name, Callable&& work)
      : FunctionTimer(std::move(scheduler), priority, std::move(name),
                      FunctionTask::asWork(std::forward<Callable>(work)), nullptr) {}
  FunctionTimer(FunctionTimer const&) = delete;
  FunctionTimer& operator=(FunctionTimer const&) = delete;
  ~FunctionTimer();

  /// One run after the delay, in place of what was asked for before. Zero is a run at once; a
  /// negative one is an assertion.
  void once(std::chrono::nanoseconds delay);
  /// A run at each multiple of the period from now on, in place of what was asked for before. The
  /// grid is kept however late a run is, and the times that a late run has missed are left out:
  /// the next run is on the first one that is to come. A period of zero or less is an assertion.
  void every(std::chrono::nanoseconds period);
  /// The same for spans of floating point, as TaskTimeDuration takes them.
  /// @{
  template <class Rep, class Period, std::enable_if_t<std::is_floating_point_v<Rep>, int> = 0>
  void once(std::chrono::duration<Rep, Period> delay) {
    once(std::chrono::nanoseconds(Brelo::TaskTimeDuration(delay).count()));
  }
  template <class Rep, class Period, std::enable_if_t<std::is_floating_point_v<Rep>, int> = 0>
  void every(std::chrono::duration<Rep, Period> period) {
    every(std::chrono::nanoseconds(Brelo::TaskTimeDuration(period).count()));
  }
  /// @}
  void cancel();       ///< no run is coming any more
  bool armed() const;  ///< a run is coming
  /// The task itself, for its quantum, suspension and figures.
  Brelo::TimerTask& task() const;

 private:
  class Inner;

  FunctionTimer(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
                std::string name, FunctionTask::Work work, std::nullptr_t);

  std::shared_ptr<Inner> inner_;
};

}  // namespace BreloDaemon
