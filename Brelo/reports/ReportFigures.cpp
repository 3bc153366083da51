#include "Brelo/reports/ReportFigures.h"

#include <algorithm>

#include "Brelo/Assert.h"

namespace Brelo {

TaskSchedulerPriorityStats Impl::statsOfLevel(TaskSchedulerQueueStats const& stats,
                                              TaskPriority level) {
  auto const found = stats.find(level);
  return found == stats.end() ? TaskSchedulerPriorityStats() : found->second;
}

void Impl::sortHeaviestFirst(std::vector<TaskStat const*>& tasks) {
  std::sort(tasks.begin(), tasks.end(), [](TaskStat const* a, TaskStat const* b) {
    return a->taskTotalRunTime > b->taskTotalRunTime;
  });
}

std::string Impl::subSchedulerKey(TaskStat const& parentTask) {
  if (!parentTask.taskStatus.taskIsTaskGroup()) {
    BRELO_FAIL("Brelo", "{} is not TaskGroup", parentTask.taskName());
  }
  return parentTask.taskName() + "-" + parentTask.taskKey.toStrep();
}

}  // namespace Brelo
