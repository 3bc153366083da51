#pragma once

#include <cstdint>
#include <map>

#include "Brelo/TaskPriority.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo::Impl {

/// A count for each priority, at first 0. Those of the levels are there from the start, so that
/// counting tasks, which also happens as they end, takes no memory.
class TaskCounts {
 public:
  TaskCounts() {
    for (unsigned char level = 0; level < TaskPriority::levels; ++level)
      counts_.emplace(level, 0);
  }

  std::uint32_t of(TaskPriority priority) const {
    auto const found = counts_.find(priority);
    return found == counts_.end() ? 0 : found->second;
  }
  void inc(TaskPriority priority) { ++counts_[priority]; }
  /// A count of 0 is an assertion in the function of that name.
  void dec(TaskPriority priority, char const* func) {
    std::uint32_t& count = counts_[priority];
    if (count == 0) schedulerFail(func, __LINE__, "Priority: ", priority, " count: ", count);
    --count;
  }
  void clear() {
    for (auto& [priority, count] : counts_)
      count = 0;
  }

 private:
  std::map<TaskPriority, std::uint32_t> counts_;
};

}  // namespace Brelo::Impl
