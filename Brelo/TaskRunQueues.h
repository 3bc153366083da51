#pragma once

#include <array>
#include <cstdint>

#include "Brelo/Export.h"
#include "Brelo/TaskImpl.h"
#include "Brelo/TaskPriority.h"

namespace Brelo {

/// A scheduler's run queues, one for each priority. The links lie in the tasks: nothing here
/// allocates, and all of it takes constant time. A scheduler's own: clients do not make one.
class TaskRunQueues {
 public:
  /// One level: first in, first out, with the counters that fairness and statistics read.
  ///
  /// Tasks are queued on the persistent list, and picked from the current one, which is the
  /// persistent one at rest. Between the two moves the current list is the temporary one, so
  /// that exactly the tasks of the first move are run, and what is queued meanwhile waits.
  class BRELO_EXPORT TaskRunQueue {
   public:
    void enqueue(TaskImpl& task);  ///< at the end; the task is on no queue
    /// Takes a queued task off, to run it or not.
    /// @{
    void removeToRun(TaskImpl& task);
    void removeUnrun(TaskImpl& task);
    /// @}
    /// The current list has a task; which is the next one.
    /// @{
    bool ready() const { return !currentRunQueue_->empty(); }
    TaskImpl& first() { return currentRunQueue_->front(); }
    /// @}

    /// The task that has been queued for the longest time, or null.
    TaskImpl const* longestQueued() const;

    /// Tasks on both lists.
    std::int64_t runnableCount() const {
      return static_cast<std::int64_t>(scheduledCount_ - runCount_);
    }
    /// Tasks taken off to run since the count was cleared.
    /// @{
    std::uint64_t runsSinceClear() const { return runCount_ - runCountBase_; }
    void clearRuns() { runCountBase_ = runCount_; }
    /// @}

    /// The two moves. At the second, what is left goes ahead of what was queued meanwhile. A
    /// temporary list that is not empty at the first, or after the second, is an assertion.
    /// @{
    void movePersistentToTemporary();
    void moveTemporaryToPersistent();
    /// @}

   private:
    void assertTemporaryEmpty(char const* func) const;

    TaskImpl::RunQueueList persistentRunQueue_;
    TaskImpl::RunQueueList temporaryRunQueue_;
    TaskImpl::RunQueueList* currentRunQueue_ = &persistentRunQueue_;
    std::uint64_t scheduledCount_ = 0;
    std::uint64_t runCount_ = 0;
    std::uint64_t runCountBase_ = 0;
  };

  /// The level of that priority, which must be one.
  /// @{
  TaskRunQueue& operator[](TaskPriority priority) { return levels_[priority.value()]; }
  TaskRunQueue const& operator[](TaskPriority priority) const { return levels_[priority.value()]; }
  /// @}

  /// Of the level of that priority: whether a task can be taken now, and how many are queued.
  /// @{
  bool ready(TaskPriority priority) const { return (*this)[priority].ready(); }
  std::uint32_t runnable(TaskPriority priority) const;
  /// @}

  /// All levels, `absolute` first.
  /// @{
  auto begin() { return levels_.begin(); }
  auto end() { return levels_.end(); }
  auto begin() const { return levels_.begin(); }
  auto end() const { return levels_.end(); }
  /// @}

 private:
  std::array<TaskRunQueue, TaskPriority::levels> levels_;
};

}  // namespace Brelo
