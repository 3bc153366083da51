#pragma once

#include <memory>
#include <unordered_set>

#include "Brelo/TaskSchedulerBase.h"
#include "Brelo/scheduling/CompletedTaskStats.h"
#include "Brelo/scheduling/ForcedYieldTasks.h"
#include "Brelo/scheduling/ResetStatsTask.h"
#include "Brelo/scheduling/TaskFairness.h"

namespace Brelo {

/// What a scheduler is made of, apart from its queues and its list of tasks.
struct TaskScheduler::Parts {
  Impl::TaskFairness fairness;
  Impl::CompletedTaskStats completedTaskStats;
  Impl::ForcedYieldTasks forcedYield;
  std::shared_ptr<ResetStatsTask> resetStatsTask_;  // made at first need
  std::unordered_set<std::shared_ptr<SnapshotRenderJsonTask>> renderJsonTasks_;  // under way
};

}  // namespace Brelo
