#include "Brelo/FileDescriptorTask.h"

#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/TaskSchedulerBase.h"
#include "Brelo/TaskSchedulerHistory.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/scheduling/FileDescriptorTaskInner.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/SteadyNow.h"

namespace Brelo {

using Impl::steadyNow;

FileDescriptorTask::FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler,
                                       TaskPriority priority, std::string name)
    : _TaskBase(std::move(scheduler), priority, name), fdControl_(Platform::getFdControl(this)) {
  initialize();
}

FileDescriptorTask::FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority,
                                       std::string name)
    : _TaskBase(sharedScheduler(scheduler), priority, name),
      fdControl_(Platform::getFdControl(this)) {
  initialize();
}

void FileDescriptorTask::initialize() {
  readTask_ = makeTracked<ReadTask>(this, ":read");
  taskWatchReadableIs(true);
  taskWatchWritableIs(false);
}

FileDescriptorTask::~FileDescriptorTask() {
  readTask_->orphanIs();
  if (writeTask_ != nullptr) writeTask_->orphanIs();
  writeTask_.reset();
  readTask_.reset();
  fdControl_.reset();
}

void FileDescriptorTask::checkCreateWriteTask() {
  if (writeTask_ != nullptr) return;
  writeTask_ = makeTracked<WriteTask>(this, ":write");
  if (readTask_->taskTestYieldRatio() != 1) writeTask_->taskQuantumIs(readTask_->taskQuantum());
  writeTask_->taskSuspendedIs(readTask_->taskSuspended());
  writeTask_->taskTestYieldRatioIs(readTask_->taskTestYieldRatio());
}

void FileDescriptorTask::taskStatsNameIs(std::string name) {
  _TaskBase::taskStatsNameIs(name);
  readTask_->taskStatsNameIs(name + ":read");
  if (writeTask_ != nullptr) writeTask_->taskStatsNameIs(name + ":write");
}

void FileDescriptorTask::taskWatchFdIs(int fd) {
  if (fd == taskWatchFd()) return;
  dropWatch();
  fdControl_->setFd(fd);
  // Where a write event has come and not been run, the platform's watch is used up.
  if (taskWatchWritable_) fdControl_->setWrites(true);
}

void FileDescriptorTask::taskWatchFdDel() {
  dropWatch();
  fdControl_->delFd();
}

void FileDescriptorTask::dropWatch() {
  bool const paused = std::exchange(readsPaused_, false);
  readTask_->unscheduleTask();
  if (writeTask_ != nullptr) writeTask_->unscheduleTask();
  if (!paused) return;
  fdControl_->delFd();
  fdControl_->setReads(true);
}

void FileDescriptorTask::pauseReads() {
  if (readsPaused_) return;
  readsPaused_ = true;
  fdControl_->setReads(false);
}

void FileDescriptorTask::resumeReads(unsigned passes) {
  if (!readsPaused_) return;
  try {
    passes == 0 ? fdControl_->setReads(true) : fdControl_->setReadsAgain(passes);
  } catch (...) {
    readTask_->TaskImpl::scheduleTask();  // tries again after its run, or nobody ever would
    throw;
  }
  readsPaused_ = false;
}

/// In how many passes at least this task would not run again, if it were queued now: a root runs
/// one task in each.
unsigned FileDescriptorTask::othersFirst() const {
  bool const ofRoot = taskScheduler_.get() == &taskScheduler_->root();
  return ofRoot ? taskScheduler_->runnableTaskCount(taskPriority()) : 0;
}

void FileDescriptorTask::taskWatchReadableIs(bool on) {
  if (on == taskWatchReadable_) return;
  fdControl_->setReads(on);
  taskWatchReadable_ = on;
  readsPaused_ = false;
  if (!on) readTask_->unscheduleTask();
}

void FileDescriptorTask::taskWatchWritableIs(bool on) {
  if (on == taskWatchWritable_) return;
  checkCreateWriteTask();
  fdControl_->setWrites(on);
  taskWatchWritable_ = on;
  if (!on) writeTask_->unscheduleTask();
}

void FileDescriptorTask::scheduleTaskReadable() {
  readTask_->TaskImpl::scheduleTask();
}

void FileDescriptorTask::scheduleTaskWritable() {
  checkCreateWriteTask();
  writeTask_->TaskImpl::scheduleTask();
}

bool FileDescriptorTask::taskScheduledReadable() const {
  return readTask_->taskScheduled();
}

bool FileDescriptorTask::taskScheduledWritable() const {
  return writeTask_ != nullptr && writeTask_->taskScheduled();
}

bool FileDescriptorTask::taskScheduled() const {
  return taskScheduledReadable() || taskScheduledWritable();
}

void FileDescriptorTask::readFdEvent(int fd) {
  BRELO_SCHEDULER_ASSERT(taskWatchReadable_, "readFdEvent() called with taskWatchReadable off");
  BRELO_SCHEDULER_ASSERT(fd == taskWatchFd(), "Notified about ", fd, " watching ", taskWatchFd());
  TaskTimePoint const now = steadyNow();
  bool const runIsNext = !taskScheduler_->schedulerHasRunnableTasks() && !readTask_->onRunQueue() &&
                         !readTask_->taskSuspended() && !taskScheduler_->root().suspended();
  taskHistoryInsert(now, TaskSchedulerEventType::fdReadable);
  readTask_->scheduleTaskAt(now);
  // What is known already need not be told again at each pass until the run.
  if (!runIsNext) pauseReads();
}

void FileDescriptorTask::writeFdEvent(int fd) {
  BRELO_SCHEDULER_ASSERT(taskWatchWritable_, "writeFdEvent() called with taskWatchWritable off");
  BRELO_SCHEDULER_ASSERT(fd == taskWatchFd(), "Notified about ", fd, " watching ", taskWatchFd());
  TaskTimePoint const now = steadyNow();
  taskHistoryInsert(now, TaskSchedulerEventType::fdWritable);
  checkCreateWriteTask();
  writeTask_->scheduleTaskAt(now);
}

std::string FileDescriptorTask::handlerName() const {
  return fmt::format("\"{}\"", taskName());
}

void FileDescriptorTask::_taskExecuteReadable() {
  if (!taskWatchReadable_) {
    BRELO_FAIL("FileDescriptorTask", "ReadTask should only run if taskWatchReadable");
  }
  if (executingTask_ != nullptr) BRELO_FAIL("FileDescriptorTask", "Executing task already set");
  executingTask_ = readTask_.get();
  try {
    taskExecuteReadable();
  } catch (...) {
    resumeReads();
    throw;
  }
  executingTask_ = nullptr;
  if (readsPaused_ && !readTask_->onRunQueue()) resumeReads(othersFirst());
}

void FileDescriptorTask::_taskExecuteWritable() {
  taskWatchWritableIs(false);
  if (executingTask_ != nullptr) BRELO_FAIL("FileDescriptorTask", "Executing task already set");
  executingTask_ = writeTask_.get();
  taskExecuteWritable();
  executingTask_ = nullptr;
}

TaskImpl& FileDescriptorTask::executingTask() const {
  BRELO_SCHEDULER_ASSERT(executingTask_ != nullptr, "Task: ", this, " not currently running");
  return *executingTask_;
}

bool FileDescriptorTask::taskShouldYield() const {
  return executingTask().taskShouldYield();
}

void FileDescriptorTask::taskWorkCountInc(unsigned long count) {
  executingTask().taskWorkCountInc(count);
}

void FileDescriptorTask::taskWorkPendingIs(unsigned pending) {
  executingTask().taskWorkPendingIs(pending);
}

void FileDescriptorTask::taskQuantumIs(TaskTimeDuration quantum) {
  readTask_->taskQuantumIs(quantum);
  if (writeTask_ != nullptr) writeTask_->taskQuantumIs(quantum);
}

void FileDescriptorTask::taskSuspendedIs(bool suspended) {
  readTask_->taskSuspendedIs(suspended);
  if (!suspended) {
    resumeReads();
    // To resume asks for a run, which there is none of without interest.
    if (!taskWatchReadable_) readTask_->unscheduleTask();
  }
  if (writeTask_ != nullptr) writeTask_->taskSuspendedIs(suspended);
}

void FileDescriptorTask::taskForceYieldInTestIs(bool on) {
  readTask_->taskForceYieldInTestIs(on);
  if (writeTask_ != nullptr) writeTask_->taskForceYieldInTestIs(on);
}

void FileDescriptorTask::taskTestYieldRatioIs(unsigned char ratio) {
  readTask_->taskTestYieldRatioIs(ratio);
  if (writeTask_ != nullptr) writeTask_->taskTestYieldRatioIs(ratio);
}

TaskTimeDuration FileDescriptorTask::taskQuantum() const {
  return readTask_->taskQuantum();
}

bool FileDescriptorTask::taskSuspended() const {
  return readTask_->taskSuspended();
}

bool FileDescriptorTask::taskForceYieldInTest() const {
  return readTask_->taskForceYieldInTest();
}

unsigned char FileDescriptorTask::taskTestYieldRatio() const {
  return readTask_->taskTestYieldRatio();
}

}  // namespace Brelo
