#pragma once

#include <chrono>
#include <cstdint>

#include "Brelo/ConstStringCache.h"
#include "Brelo/TaskPriority.h"
#include "BreloObserve/Histogram.h"

namespace BreloObserve::Impl {

/// What a monitor counts of all tasks of one stats name in one group. What each run touches is
/// close together.
struct NameAccount {
  Brelo::ConstStringRef group;
  Brelo::ConstStringRef name;
  Brelo::ConstStringRef parentGroup;  // null for the root's own
  bool isGroup = false;
  bool isSum = false;                                                 // of several names
  Brelo::TaskPriority priority = Brelo::TaskPriority::oneBeyondLast;  // that of the latest task

  // Of the window.
  std::uint64_t work = 0;
  Histogram run;
  Histogram wait;
  std::uint64_t violations200 = 0;
  std::uint64_t violations500 = 0;
  std::chrono::nanoseconds beforeWindow{};  // of the runs, what they used before it began

  // As of the latest look at the live tasks.
  std::uint64_t tasks = 0;
  std::uint64_t runnable = 0;
  std::uint64_t pending = 0;
  std::chrono::nanoseconds underWay{};  // used by runs that have not ended

  bool inUse() const { return run.count() != 0 || tasks != 0 || underWay.count() != 0; }
  /// Time used in the window, in nanoseconds.
  double used() const { return run.sum() + static_cast<double>((underWay - beforeWindow).count()); }

  void clearWindow() noexcept {
    run.clear();
    wait.clear();
    work = violations200 = violations500 = 0;
    beforeWindow = {};
  }
  void clearLive() noexcept {
    tasks = runnable = pending = 0;
    underWay = {};
  }
  /// Adds all figures of the other.
  void merge(NameAccount const& other) {
    run.merge(other.run);
    wait.merge(other.wait);
    work += other.work;
    violations200 += other.violations200;
    violations500 += other.violations500;
    beforeWindow += other.beforeWindow;
    tasks += other.tasks;
    runnable += other.runnable;
    pending += other.pending;
    underWay += other.underWay;
  }
};

}  // namespace BreloObserve::Impl
