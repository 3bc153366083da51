// The counters of a descriptor task's two directions.

#include "Brelo/Assert.h"
#include "Brelo/scheduling/FileDescriptorTaskInner.h"

namespace Brelo {

FileDescriptorTask::WriteTask& FileDescriptorTask::existingWriteTask(char const* func) {
  if (writeTask_ == nullptr) {
    fmassert("FileDescriptorTask", __FILE__, func, __LINE__,
             "WriteTask not created by taskWatchWritableIs( true )");
  }
  return *writeTask_;
}

void FileDescriptorTask::taskWorkCountReadableInc(unsigned long count) {
  readTask_->taskWorkCountInc(count);
}

void FileDescriptorTask::taskWorkCountWritableInc(unsigned long count) {
  existingWriteTask(__func__).taskWorkCountInc(count);
}

void FileDescriptorTask::taskWorkPendingReadableIs(unsigned pending) {
  readTask_->taskWorkPendingIs(pending);
}

void FileDescriptorTask::taskWorkPendingWritableIs(unsigned pending) {
  existingWriteTask(__func__).taskWorkPendingIs(pending);
}

std::uint64_t FileDescriptorTask::taskWorkCountReadableTotal() const {
  return readTask_->taskWorkCountTotal;
}

std::uint64_t FileDescriptorTask::taskWorkCountWritableTotal() const {
  return writeTask_ == nullptr ? 0 : writeTask_->taskWorkCountTotal;
}

float FileDescriptorTask::taskWorkCountReadableDecayAvg() const {
  return readTask_->taskWorkCountDecayAvg;
}

float FileDescriptorTask::taskWorkCountWritableDecayAvg() const {
  return writeTask_ == nullptr ? 0 : writeTask_->taskWorkCountDecayAvg;
}

TaskMaybeU32 FileDescriptorTask::taskWorkCountReadableHighWaterMark() const {
  return readTask_->taskWorkCountHighWaterMark;
}

TaskMaybeU32 FileDescriptorTask::taskWorkCountWritableHighWaterMark() const {
  return writeTask_ == nullptr ? TaskMaybeU32(0) : writeTask_->taskWorkCountHighWaterMark;
}

std::uint32_t FileDescriptorTask::taskWorkPendingReadable() const {
  return readTask_->taskWorkPending;
}

std::uint32_t FileDescriptorTask::taskWorkPendingWritable() const {
  return writeTask_ == nullptr ? 0 : writeTask_->taskWorkPending;
}

TaskMaybeU32 FileDescriptorTask::taskWorkPendingReadableHighWaterMark() const {
  return readTask_->taskWorkPendingHighWaterMark;
}

TaskMaybeU32 FileDescriptorTask::taskWorkPendingWritableHighWaterMark() const {
  return writeTask_ == nullptr ? TaskMaybeU32(0) : writeTask_->taskWorkPendingHighWaterMark;
}

std::uint32_t FileDescriptorTask::taskRunCountReadable() const {
  return readTask_->taskRunCount;
}

std::uint32_t FileDescriptorTask::taskRunCountWritable() const {
  return writeTask_ == nullptr ? 0 : writeTask_->taskRunCount;
}

std::uint32_t FileDescriptorTask::taskRunCount() const {
  return taskRunCountReadable() + taskRunCountWritable();
}

}  // namespace Brelo
