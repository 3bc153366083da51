#pragma once

#include <array>
#include <cstdint>

#include "Brelo/TaskPriority.h"

namespace Brelo::Impl {

/// From which level the next task is taken, and what that takes to be fair.
///
/// Passive: it is told at each pick what waits, and keeps for each level how many picks in a row
/// fell on it without a pass to a lower one. `Waiting` has `ready(priority)`, whether a task of
/// that level can be taken now, and `runnable(priority)`, how many are queued.
class TaskFairness {
 public:
  /// The level at `from` or below it to take a task from; `oneBeyondLast` if none is ready.
  template <class Waiting>
  TaskPriority pick(Waiting const& waiting, TaskPriority from) {
    for (unsigned char level = from.value(); level < TaskPriority::levels; ++level) {
      TaskPriority const priority(level);
      std::uint32_t& runs = consecutiveRuns_[level];
      if (!waiting.ready(priority)) {
        runs = 0;
        continue;
      }
      if (attemptLowerPriorityBump(waiting, priority, runs)) {
        TaskPriority const lower = pick(waiting, TaskPriority(level + 1));
        if (lower.isLevel()) {
          runs = 0;
          return lower;
        }
      }
      ++runs;
      return priority;
    }
    return TaskPriority::oneBeyondLast;
  }

  /// Whether a ready `priority` is passed over for a lower level after so many runs in a row. The
  /// sums are of 32 bits and may wrap.
  template <class Waiting>
  static bool attemptLowerPriorityBump(Waiting const& waiting, TaskPriority priority,
                                       std::uint32_t consecutiveRuns) {
    if (priority != TaskPriority::high && priority != TaskPriority::normal) return false;
    std::uint32_t lower = 0;
    for (unsigned char level = priority.value() + 1; level <= TaskPriority::low.value(); ++level) {
      lower += waiting.runnable(TaskPriority(level)) * weights[level];
    }
    if (lower == 0) return false;
    std::uint32_t const own = waiting.runnable(priority) * weights[priority.value()];
    return lower * consecutiveRuns > own;
  }

 private:
  // By level: one waiting task counts as much as eight of the level below. `absolute` has no
  // weight since it is never passed over, `scavenge` none since it never causes a pass.
  static constexpr std::uint32_t weights[TaskPriority::levels] = {0, 64, 8, 1, 0};

  std::array<std::uint32_t, TaskPriority::levels> consecutiveRuns_{};
};

}  // namespace Brelo::Impl
