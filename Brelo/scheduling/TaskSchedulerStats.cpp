// A scheduler's statistics: of its tasks, of those that have ended, and their two resets.

#include <new>

#include "Brelo/MemTrack.h"
#include "Brelo/TaskSchedulerBase.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/TaskSchedulerParts.h"

namespace Brelo {

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

unsigned TaskSchedulerReports::getTaskStats(std::vector<TaskStat>* out,
                                            bool includeNeverRun) const {
  TaskScheduler const& self = scheduler();
  out->reserve(out->size() + self.registeredTaskCount_);
  unsigned skipped = 0;
  for (TaskImpl const& task : self.registeredTasks_) {
    if (task.taskRunCount == 0 && !includeNeverRun) {
      ++skipped;
    } else {
      out->push_back(task.getStats());
    }
  }
  out->shrink_to_fit();
  return skipped;
}

unsigned TaskSchedulerReports::getCompletedTaskStats(std::vector<TaskStat>* out,
                                                     bool includeNeverRun) const {
  return scheduler().parts_->completedTaskStats.copyTo(out, includeNeverRun);
}

TaskStat TaskSchedulerReports::taskStatForTest(std::string const& name) const {
  for (TaskImpl const& task : scheduler().registeredTasks_) {
    if (task.taskName() == name) return task.getStats();
  }
  return {};
}

TaskStat TaskSchedulerReports::completedTaskStatForTest(std::string const& name) const {
  return scheduler().parts_->completedTaskStats.of(name);
}

void TaskScheduler::clearStatsCommon() {
  maxSchedulerSlip_ = {};
  clearCounts();
  parts_->completedTaskStats.clear();
  root().tellStatsCleared(*this);
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
