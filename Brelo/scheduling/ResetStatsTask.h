#pragma once

#include <memory>
#include <string>

#include "Brelo/Task.h"
#include "Brelo/TaskSchedulerBase.h"

namespace Brelo {

/// The background reset of a scheduler's statistics: walks its registered tasks, itself among
/// them, a quantum at a time, and ends with the scheduler's own figures. The place of the walk is a
/// bookmark, so tasks may come and go meanwhile.
class [[gnu::visibility("hidden")]] TaskScheduler::ResetStatsTask : public Task {
 public:
  ResetStatsTask(TaskScheduler * scheduler, TaskPriority priority);

  /// Begins the walk, or begins it anew.
  void restart();
  void taskExecute() override;

 private:
  void handleResetStatsTaskRun();

  TaskImpl::RegisteredList::Bookmark resetStatsBookmark_;
};

}  // namespace Brelo
