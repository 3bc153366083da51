// A scheduler's statistics: of its tasks, of those that have ended, and their two resets.

#include "Brelo/Task.h"
#include "Brelo/TaskScheduler.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

/// Walks the registered tasks in the background, a slice at a time.
class TaskScheduler::ResetStatsTask : public Task {
 public:
  ResetStatsTask(TaskScheduler* scheduler, TaskPriority priority)
      : Task(scheduler, priority, scheduler->schedulerName() + ";ResetStats") {}

  void taskExecute() override {
    auto const scheduler = taskScheduler();
    scheduler->handleResetStatsTaskRun();
  }
};

namespace {

using CountByPriority = std::map<TaskPriority, std::uint32_t>;

std::uint32_t countOf(CountByPriority const& counts, TaskPriority priority) {
  auto const found = counts.find(priority);
  return found == counts.end() ? 0 : found->second;
}

void decrement(CountByPriority& counts, TaskPriority priority, char const* func) {
  std::uint32_t& count = counts[priority];
  if (count == 0) Impl::schedulerFail(func, __LINE__, "Priority: ", priority, " count: ", count);
  --count;
}

}  // namespace

std::uint32_t TaskScheduler::tasksPerPriority(TaskPriority priority) const {
  return countOf(tasksPerPriority_, priority);
}

std::uint32_t TaskScheduler::completedTasksPerPriority(TaskPriority priority) const {
  return countOf(completedTasksPerPriority_, priority);
}

void TaskScheduler::tasksPerPriorityInc(TaskPriority priority) {
  ++tasksPerPriority_[priority];
}

void TaskScheduler::tasksPerPriorityDec(TaskPriority priority) {
  decrement(tasksPerPriority_, priority, __func__);
}

void TaskScheduler::completedTasksPerPriorityInc(TaskPriority priority) {
  ++completedTasksPerPriority_[priority];
}

void TaskScheduler::completedTasksPerPriorityDec(TaskPriority priority) {
  decrement(completedTasksPerPriority_, priority, __func__);
}

void TaskScheduler::completedTaskStatsInc(ConstStringRef const& name, TaskStat stat) {
  auto const [kept, inserted] = completedTaskStats_.try_emplace(name, std::move(stat));
  if (!inserted) kept->second += stat;
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
  completedTaskStatsInc(task->taskStatsNameRef(), stat);
  BRELO_SCHEDULER_ASSERT(tasksPerPriority(priority) != 0, "Task: ", task,
                         " tasksPerPriority: ", tasksPerPriority(priority));
  tasksPerPriorityDec(priority);
  completedTasksPerPriorityInc(priority);
}

unsigned TaskScheduler::getTaskStats(std::vector<TaskStat>* out, bool includeNeverRun) const {
  std::size_t registered = 0;
  for (auto const& [priority, count] : tasksPerPriority_)
    registered += count;
  out->reserve(out->size() + registered);
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

TaskStat TaskScheduler::taskStatForTest(std::string const& name) const {
  for (TaskImpl const& task : registeredTasks_) {
    if (task.taskName() == name) return task.getStats();
  }
  return {};
}

TaskStat TaskScheduler::completedTaskStatForTest(std::string const& name) const {
  for (auto const& [kept, stat] : completedTaskStats_) {
    if (kept.string() == name) return stat;
  }
  return {};
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
  completedTaskStats_.clear();
  completedTasksPerPriority_.clear();
}

void TaskScheduler::clearStats() {
  clearStatsCommon();
  for (TaskImpl& task : registeredTasks_)
    task.resetStats();
}

bool TaskScheduler::resetStatsInProgress() const {
  return resetStatsTask_ != nullptr && resetStatsTask_->taskScheduled();
}

void TaskScheduler::resetStats() {
  if (resetStatsTask_ == nullptr) {
    resetStatsTask_ = makeTracked<ResetStatsTask>(this, ownTaskPriority_);
  }
  resetStatsTask_->scheduleTask();
  resetStatsBookmark_.unlink();
  resetStatsBookmark_.insertBefore(registeredTasks_.begin());
}

void TaskScheduler::handleResetStatsTaskRun() {
  TaskImpl::RegisteredList::Iterator at(registeredTasks_, resetStatsBookmark_.node());
  resetStatsBookmark_.unlink();
  unsigned count = 0;
  while (at != registeredTasks_.end()) {
    if (count > 0 && resetStatsTask_->taskShouldYield()) break;
    at->resetStats();
    ++count;
    ++at;
  }
  bool const done = at == registeredTasks_.end();
  if (!done) resetStatsBookmark_.insertBefore(at);
  resetStatsTask_->taskWorkCountInc(count);
  if (done) {
    clearStatsCommon();
  } else {
    resetStatsTask_->scheduleTask();
  }
}

}  // namespace Brelo
