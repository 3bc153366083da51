#pragma once

#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Brelo/ConstStringCache.h"
#include "Brelo/TaskStat.h"

namespace Brelo::Impl {

/// The figures that one scheduler keeps of its ended tasks, a record for each stats name.
class CompletedTaskStats {
 public:
  /// Merges the record into the one under `name`, or keeps it as the first.
  void inc(ConstStringRef const& name, TaskStat stat);
  /// See `TaskScheduler::getCompletedTaskStats`.
  unsigned copyTo(std::vector<TaskStat>* out, bool includeNeverRun) const;
  /// The record of a name, or a default one.
  TaskStat of(std::string const& name) const;
  void clear() { completedTaskStats_.clear(); }

 private:
  struct Hash {
    std::size_t operator()(ConstStringRef const& name) const {
      return std::hash<std::string>()(name.string());
    }
  };
  struct Equal {
    bool operator()(ConstStringRef const& a, ConstStringRef const& b) const {
      return a.string() == b.string();
    }
  };

  std::unordered_map<ConstStringRef, TaskStat, Hash, Equal> completedTaskStats_;
};

}  // namespace Brelo::Impl
