#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Brelo/Exception.h"
#include "Brelo/reports/SnapshotRenderJsonTask.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

using Impl::schedulerTrace;

namespace {

constexpr char const* traceLabel = "TaskScheduler::SnapshotWriteJsonTask";

}  // namespace

TaskScheduler::SnapshotWriteJsonTask::SnapshotWriteJsonTask(
    std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name, int fd,
    std::function<void()> writeCompleteFn, std::function<void()> writeFailedFn)
    : FileDescriptorTask(std::move(scheduler), priority, std::move(name)),
      writeCompleteFn_(std::move(writeCompleteFn)),
      writeFailedFn_(std::move(writeFailedFn)) {
  taskWatchFdIs(fd);
  taskWatchReadableIs(false);
  taskWatchWritableIs(false);
}

TaskScheduler::SnapshotWriteJsonTask::~SnapshotWriteJsonTask() {
  assertWriteComplete();
  taskWatchFdDel();
}

void TaskScheduler::SnapshotWriteJsonTask::assertWriteComplete() const {
  BRELO_SCHEDULER_ASSERT(writeOffset_ == writeStr_.size(),
                         "Previous write not complete, at offset ", writeOffset_, " of ",
                         writeStr_.size());
}

void TaskScheduler::SnapshotWriteJsonTask::writeStrIs(std::string text) {
  assertWriteComplete();
  std::swap(writeStr_, text);
  writeOffset_ = 0;
  BRELO_TRACE(schedulerTrace, 3, traceLabel, "Request write to fd {} of {} bytes", taskWatchFd(),
              size());
  taskWatchWritableIs(true);
}

void TaskScheduler::SnapshotWriteJsonTask::taskExecuteReadable() {
  Impl::schedulerFail(__func__, __LINE__, "We never register for readable events");
}

void TaskScheduler::SnapshotWriteJsonTask::dropChunk() {
  writeStr_ = std::string();
  writeOffset_ = 0;
}

void TaskScheduler::SnapshotWriteJsonTask::taskExecuteWritable() {
  try {
    writeChunk();
  } catch (...) {
    writeFailedFn_();
    throw;
  }
}

void TaskScheduler::SnapshotWriteJsonTask::writeChunk() {
  while (writeOffset_ != size()) {
    BRELO_SCHEDULER_ASSERT(writeOffset_ < size(), "invalid offset ", writeOffset_, " size ",
                           size());
    if (!writeSome()) return;
  }
  BRELO_TRACE(schedulerTrace, 3, traceLabel, "Completed writing to fd {}", taskWatchFd());
  assertWriteComplete();
  dropChunk();  // before the next chunk is made
  taskWorkPendingWritableIs(0);
  writeCompleteFn_();
}

/// One write. False if the rest has to wait for a later run.
bool TaskScheduler::SnapshotWriteJsonTask::writeSome() {
  std::uint32_t const left = size() - writeOffset_;
  ssize_t const result = write(taskWatchFd(), writeStr_.data() + writeOffset_, left);
  if (result < 0) return writeFailed(errno, left);
  auto const written = static_cast<std::uint32_t>(result);
  bool const yield = taskShouldYield();
  BRELO_TRACE(schedulerTrace, 3, traceLabel,
              "Writing to fd {} at offset {} of {} wrote {} bytes of {} remaining{}", taskWatchFd(),
              writeOffset_, size(), written, left, yield ? " yielding" : "");
  writeOffset_ += written;
  taskWorkCountWritableInc(written);
  if (!yield) return true;
  taskWorkPendingWritableIs(left - written);
  scheduleTaskWritable();
  return false;
}

/// What follows a failed write. True if the chunk is at its end.
bool TaskScheduler::SnapshotWriteJsonTask::writeFailed(int error, std::uint32_t left) {
  switch (error) {
    case EAGAIN:
    case EINTR:
      BRELO_TRACE(schedulerTrace, 3, traceLabel, "Writing to fd {} at offset {} of {} got {}",
                  taskWatchFd(), writeOffset_, size(), Brelo::strerror(error));
      taskWorkPendingWritableIs(left);
      if (error == EAGAIN) {
        taskWatchWritableIs(true);
      } else {
        scheduleTaskWritable();
      }
      return false;
    case EPIPE:
    case ECONNRESET:  // it left input unread
    case EBADF:
      // The reader has gone: the export runs to its end without it.
      BRELO_TRACE(schedulerTrace, 2, traceLabel, "Writing to fd {} at offset {} of {} failed {}",
                  taskWatchFd(), writeOffset_, size(), Brelo::strerror(error));
      taskWorkPendingWritableIs(0);
      writeOffset_ = size();
      return true;
    default:
      Impl::schedulerFail(__func__, __LINE__, "Write to fd ", taskWatchFd(), " failed ",
                          Brelo::strerror(error), "(", error, ")");
  }
}

}  // namespace Brelo
