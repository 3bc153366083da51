#pragma once

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "Brelo/Export.h"
#include "Brelo/Task.h"

namespace BreloDaemon {

/// A task from a callable. Letting go of it takes back the run that was asked for, also from inside
/// of the work, which then ends with its run. Belongs to the scheduler's thread. Can be moved.
class BRELO_EXPORT FunctionTask {
 public:
  /// The work, which is given the task, for `taskShouldYield()`, `taskWorkCountInc()` and the like.
  using Work = std::function<void(Brelo::TaskImpl& task)>;

  FunctionTask() = default;  ///< without work: nothing may be asked of it
  /// `work` is called in each run, as `work(task)` or `work()`.
  template <class Callable>
  FunctionTask(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
               std::string name, Callable&& work)
      : FunctionTask(std::move(scheduler), priority, std::move(name),
                     asWork(std::forward<Callable>(work)), nullptr) {}
  /// Take the task over, and leave the other without work; what this one had is let go of.
  /// @{
  FunctionTask(FunctionTask&&) noexcept = default;
  FunctionTask& operator=(FunctionTask&& other) noexcept;
  /// @}
  ~FunctionTask();

  /// Asks for one run; a second request before it changes nothing.
  void schedule();
  void cancel();           ///< takes the request back
  bool scheduled() const;  ///< a run is coming
  /// The task itself, for its quantum, suspension and figures.
  Brelo::Task& task() const { return *task_; }

  /// For the kit: a callable with or without the argument, as `Work`.
  template <class Callable>
  static Work asWork(Callable&& work) {
    if constexpr (std::is_invocable_v<Callable&, Brelo::TaskImpl&>) {
      return std::forward<Callable>(work);
    } else {
      return [held = std::forward<Callable>(work)](Brelo::TaskImpl&) mutable { held(); };
    }
  }

 private:
  FunctionTask(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
               std::string name, Work work, std::nullptr_t);

  std::shared_ptr<Brelo::Task> task_;
};

}  // namespace BreloDaemon
