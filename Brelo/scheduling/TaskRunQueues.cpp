#include "Brelo/TaskRunQueues.h"

#include "Brelo/Assert.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

void TaskRunQueues::TaskRunQueue::enqueue(TaskImpl& task) {
  persistentRunQueue_.pushBack(task);
  ++scheduledCount_;
}

// What is on the temporary list was queued before all of the persistent one.
TaskImpl const* TaskRunQueues::TaskRunQueue::longestQueued() const {
  for (auto const* list : {&temporaryRunQueue_, &persistentRunQueue_}) {
    if (!list->empty()) return &list->front();
  }
  return nullptr;
}

std::uint32_t TaskRunQueues::runnable(TaskPriority priority) const {
  std::int64_t const runnable = (*this)[priority].runnableCount();
  BRELO_SCHEDULER_ASSERT(runnable >= 0, "Priority: ", priority, " runnableTasks: ", runnable);
  return static_cast<std::uint32_t>(runnable);
}

void TaskRunQueues::TaskRunQueue::removeToRun(TaskImpl& task) {
  ++runCount_;
  TaskImpl::RunQueueList::unlink(task);
}

void TaskRunQueues::TaskRunQueue::removeUnrun(TaskImpl& task) {
  TaskImpl::RunQueueList::unlink(task);
  --scheduledCount_;
}

void TaskRunQueues::TaskRunQueue::movePersistentToTemporary() {
  assertTemporaryEmpty(__func__);
  temporaryRunQueue_.spliceBack(persistentRunQueue_);
  currentRunQueue_ = &temporaryRunQueue_;
}

void TaskRunQueues::TaskRunQueue::moveTemporaryToPersistent() {
  persistentRunQueue_.spliceFront(temporaryRunQueue_);
  assertTemporaryEmpty(__func__);
  currentRunQueue_ = &persistentRunQueue_;
}

void TaskRunQueues::TaskRunQueue::assertTemporaryEmpty(char const* func) const {
  if (temporaryRunQueue_.empty()) return;
  fmassert("TaskScheduler", __FILE__, func, __LINE__,
           "The temporary run queue should always be empty at this point");
}

}  // namespace Brelo
