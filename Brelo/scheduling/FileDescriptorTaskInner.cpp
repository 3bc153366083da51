#include "Brelo/scheduling/FileDescriptorTaskInner.h"

#include "Brelo/TaskSchedulerBase.h"
#include "Brelo/TaskSchedulerHistory.h"
#include "Brelo/TaskSchedulerRoot.h"

namespace Brelo {

FileDescriptorTask::ReadWriteTaskBase::ReadWriteTaskBase(FileDescriptorTask* owner,
                                                         char const* suffix)
    : Task(owner->taskScheduler(), owner->taskPriority(), owner->taskName() + suffix),
      fileDescriptorTask_(owner) {
  if (owner->taskStatsName() != owner->taskName()) {
    taskStatsNameIs(owner->taskStatsName() + suffix);
  }
}

void FileDescriptorTask::ReadWriteTaskBase::handleTaskBusy() {
  if (fileDescriptorTask_ == nullptr) return;
  fileDescriptorTask_->taskBusyIs(fileDescriptorTask_->taskScheduled(),
                                  taskScheduler()->history().latestTime());
}

bool FileDescriptorTask::ReadWriteTaskBase::handleTaskException() {
  if (fileDescriptorTask_ == nullptr) return Task::handleTaskException();
  auto const held = fileDescriptorTask_->shared_from_this();
  if (!taskScheduler()->root().taskExceptionHandled(*fileDescriptorTask_)) return false;
  if (fileDescriptorTask_ != nullptr && fileDescriptorTask_->executingTask_ == this) {
    fileDescriptorTask_->executingTask_ = nullptr;
  }
  return true;
}

void FileDescriptorTask::ReadTask::handleTaskBusy() {
  // After a run, or when one has been taken back. The input is drained by then as a rule, so that
  // turning the watch on does not find it ready once more.
  if (fileDescriptorTask_ != nullptr && !taskBusy()) fileDescriptorTask_->resumeReads();
  ReadWriteTaskBase::handleTaskBusy();
}

void FileDescriptorTask::ReadTask::handleResetStats() {
  if (fileDescriptorTask_ != nullptr) fileDescriptorTask_->handleResetStats();
}

void FileDescriptorTask::ReadTask::taskExecute() {
  if (fileDescriptorTask_ == nullptr) return;
  auto const held = fileDescriptorTask_->shared_from_this();
  fileDescriptorTask_->_taskExecuteReadable();
}

void FileDescriptorTask::WriteTask::taskExecute() {
  if (fileDescriptorTask_ == nullptr) return;
  auto const held = fileDescriptorTask_->shared_from_this();
  fileDescriptorTask_->_taskExecuteWritable();
}

}  // namespace Brelo
