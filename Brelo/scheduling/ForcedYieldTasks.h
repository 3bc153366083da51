#pragma once

#include <unordered_set>

namespace Brelo {

class TaskImpl;

namespace Impl {

/// The tasks of one scheduler that are made to yield in tests.
class ForcedYieldTasks {
 public:
  /// Adds or drops a task, which need not be there. True if the set became filled, or is empty.
  bool notify(TaskImpl* task, bool on) {
    bool const wasEmpty = forcedYieldTasks_.empty();
    if (on) {
      forcedYieldTasks_.insert(task);
      return wasEmpty;
    }
    forcedYieldTasks_.erase(task);
    return forcedYieldTasks_.empty();
  }
  bool empty() const { return forcedYieldTasks_.empty(); }

 private:
  std::unordered_set<TaskImpl*> forcedYieldTasks_;
};

}  // namespace Impl

}  // namespace Brelo
