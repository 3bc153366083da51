// A scheduler's statistics: of its tasks, of those that have ended, and their two resets.

#include <new>

#include "Brelo/MemTrack.h"
#include "Brelo/TaskSchedulerBase.h"
#include "Brelo/TaskSchedulerQueueStats.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/TaskSchedulerParts.h"

namespace Brelo {

std::uint32_t TaskScheduler::tasksPerPriority(TaskPriority priority) const {
  return parts_->tasksPerPriority_.of(priority);
}

std::uint32_t TaskScheduler::completedTasksPerPriority(TaskPriority priority) const {
  return parts_->completedTasksPerPriority_.of(priority);
}

void TaskScheduler::tasksPerPriorityInc(TaskPriority priority) {
  parts_->tasksPerPriority_.inc(priority);
}

void TaskScheduler::tasksPerPriorityDec(TaskPriority priority) {
  parts_->tasksPerPriority_.dec(priority, __func__);
}

void TaskScheduler::completedTasksPerPriorityInc(TaskPriority priority) {
  parts_->completedTasksPerPriority_.inc(priority);
}

void TaskScheduler::completedTasksPerPriorityDec(TaskPriority priority) {
  parts_->completedTasksPerPriority_.dec(priority, __func__);
}

void TaskScheduler::completedTaskStatsInc(ConstStringRef const& name, TaskStat stat) {
  parts_->completedTaskStats.inc(name, std::move(stat));
}

void TaskScheduler::updateCompletedTaskStats(TaskImpl* task) {
  if (!task->includedInCompletedTask()) return;
  TaskPriority const priority = task->taskPriority();
  BRELO_SCHEDULER_ASSERT(priority.isLevel(), priority);
  TaskStat stat = task->getStats();
  stat.taskNameIs(task->taskStatsNameRef());
  BRELO_SCHEDULER_ASSERT(stat.taskCompletedCount == 0, "Task: ", task,
                         " completedCount: ", stat.taskCompletedCount);
  stat.taskCompletedCountIs(1);
  try {
    completedTaskStatsInc(task->taskStatsNameRef(), stat);
  } catch (std::bad_alloc const&) {
    // The task is in its destructor: it ends, and the first figures of its stats name are lost.
  }
  BRELO_SCHEDULER_ASSERT(tasksPerPriority(priority) != 0, "Task: ", task,
                         " tasksPerPriority: ", tasksPerPriority(priority));
  tasksPerPriorityDec(priority);
  completedTasksPerPriorityInc(priority);
}

unsigned TaskScheduler::getTaskStats(std::vector<TaskStat>* out, bool includeNeverRun) const {
  out->reserve(out->size() + registeredTaskCount_);
  unsigned skipped = 0;
  for (TaskImpl const& task : registeredTasks_) {
    if (task.taskRunCount == 0 && !includeNeverRun) {
      ++skipped;
    } else {
      out->push_back(task.getStats());
    }
  }
  out->shrink_to_fit();
  return skipped;
}

unsigned TaskScheduler::getCompletedTaskStats(std::vector<TaskStat>* out,
                                              bool includeNeverRun) const {
  return parts_->completedTaskStats.copyTo(out, includeNeverRun);
}

TaskStat TaskScheduler::taskStatForTest(std::string const& name) const {
  for (TaskImpl const& task : registeredTasks_) {
    if (task.taskName() == name) return task.getStats();
  }
  return {};
}

TaskStat TaskScheduler::completedTaskStatForTest(std::string const& name) const {
  return parts_->completedTaskStats.of(name);
}

TaskSchedulerQueueStats TaskScheduler::queueStats() const {
  TaskSchedulerQueueStats stats;
  for (unsigned char level = 0; level < TaskPriority::levels; ++level) {
    TaskPriority const priority(level);
    TaskSchedulerPriorityStats entry;
    entry.priority = priority;
    entry.runnableTasks = runnableTaskCount(priority);
    entry.idleTasks = tasksPerPriority(priority) - entry.runnableTasks;
    entry.completedTasks = completedTasksPerPriority(priority);
    entry.totalRunCount = static_cast<std::uint32_t>(runTaskCount(priority));
    bool const inserted = stats.emplace(priority, entry).second;
    BRELO_SCHEDULER_ASSERT(inserted, "Priority: ", priority, " insert failed");
  }
  return stats;
}

void TaskScheduler::clearStatsCommon() {
  maxSchedulerSlip_ = {};
  for (auto& queue : taskRunQueues_)
    queue.clearRuns();
  parts_->completedTaskStats.clear();
  parts_->completedTasksPerPriority_.clear();
}

void TaskScheduler::clearStats() {
  clearStatsCommon();
  for (TaskImpl& task : registeredTasks_)
    task.resetStats();
}

bool TaskScheduler::resetStatsInProgress() const {
  return parts_->resetStatsTask_ != nullptr && parts_->resetStatsTask_->taskScheduled();
}

void TaskScheduler::resetStats() {
  auto& task = parts_->resetStatsTask_;
  if (task == nullptr) task = makeTracked<ResetStatsTask>(this, ownTaskPriority_);
  task->restart();
}

}  // namespace Brelo
