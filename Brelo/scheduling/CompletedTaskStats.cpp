#include "Brelo/scheduling/CompletedTaskStats.h"

#include <utility>

namespace Brelo::Impl {

void CompletedTaskStats::inc(ConstStringRef const& name, TaskStat stat) {
  auto const [kept, inserted] = completedTaskStats_.try_emplace(name, std::move(stat));
  if (!inserted) kept->second += stat;
}

unsigned CompletedTaskStats::copyTo(std::vector<TaskStat>* out, bool includeNeverRun) const {
  out->reserve(out->size() + completedTaskStats_.size());
  unsigned skipped = 0;
  for (auto const& [name, stat] : completedTaskStats_) {
    if (stat.taskRunCount == 0 && !includeNeverRun) {
      ++skipped;
    } else {
      out->push_back(stat);
    }
  }
  out->shrink_to_fit();
  return skipped;
}

TaskStat CompletedTaskStats::of(std::string const& name) const {
  for (auto const& [kept, stat] : completedTaskStats_) {
    if (kept.string() == name) return stat;
  }
  return {};
}

}  // namespace Brelo::Impl
