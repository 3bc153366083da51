#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Brelo/Export.h"
#include "Brelo/Platform.h"
#include "Brelo/TaskBase.h"
#include "Brelo/TaskImpl.h"
#include "Brelo/TaskStat.h"

namespace Brelo {

/// Ties one descriptor to the scheduler: an event queues a task, whose run calls
/// `taskExecuteReadable()` or `taskExecuteWritable()`, so that input and output take their turn
/// by priority and are measured like everything else.
///
/// It is a face for two inner tasks, named after it with ":read" and ":write"; the write task is
/// made when it is first needed. It is not itself queued or registered. It watches for reads from
/// the moment it gets a descriptor; write interest is one-shot and ends as the handler starts.
///
/// Owned through a shared pointer, which its runs need; belongs to the scheduler's thread. The
/// descriptor stays the client's. When a handler throws, the task cannot be run any more, unless
/// the root's handler deals with it (`TaskSchedulerRoot::taskExceptionHandlerIs`).
class BRELO_EXPORT FileDescriptorTask : public _TaskBase, Platform::FdEventHandler {
 public:
  /// Without a descriptor. The platform watch is of the calling thread's backend.
  FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     std::string name);
  /// The same. Raises `std::bad_weak_ptr` if no shared pointer owns the scheduler.
  FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority, std::string name);
  ~FileDescriptorTask() override;

  /// The directions add their ":read" and ":write" to it.
  void taskStatsNameIs(std::string name) override;
  /// Either direction is.
  bool taskScheduled() const override;
  /// These three speak of the direction that is running. Outside of a handler they are an
  /// assertion.
  /// @{
  bool taskShouldYield() const override;
  void taskWorkCountInc(unsigned long count) override;
  void taskWorkPendingIs(unsigned pending) override;
  /// @}

  /// The work of a direction. A run may come without an event, and several events before a run
  /// are one run. Input that is left brings another event; output that is left has to ask for one
  /// by `taskWatchWritableIs(true)`.
  /// @{
  virtual void taskExecuteReadable() = 0;
  virtual void taskExecuteWritable() = 0;
  /// @}
  /// The platform's notifications. `fd` must be the watched one, and the direction wanted.
  /// @{
  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;
  /// @}
  std::string handlerName() const override;  ///< the task's name in quotes

  /// Watches `fd`, which becomes non-blocking. A descriptor other than the present one takes
  /// queued runs of either direction off; the interest in both directions stays. -1 is
  /// `taskWatchFdDel()`. A descriptor that is not open is a failure of the platform's kind.
  void taskWatchFdIs(int fd);
  int taskWatchFd() const { return fdControl_->getFd(); }  ///< -1 without one
  /// Forgets the descriptor and takes queued runs off. To be called before it is closed.
  void taskWatchFdDel();
  /// Interest in a direction; also without a descriptor, for the next one. To end it takes a
  /// queued run of that direction off.
  /// @{
  void taskWatchReadableIs(bool on);
  void taskWatchWritableIs(bool on);
  bool taskWatchReadable() const { return taskWatchReadable_; }
  bool taskWatchWritable() const { return taskWatchWritable_; }
  /// @}

  /// Ask for a run without an event. One that is readable without read interest is an assertion.
  /// @{
  void scheduleTaskReadable();
  void scheduleTaskWritable();
  /// @}
  /// A run of that direction is coming.
  /// @{
  bool taskScheduledReadable() const;
  bool taskScheduledWritable() const;
  /// @}

  /// For both directions; see TaskImpl.
  /// @{
  void taskQuantumIs(TaskTimeDuration quantum);
  void taskSuspendedIs(bool suspended);
  void taskForceYieldInTestIs(bool on);
  void taskTestYieldRatioIs(unsigned char ratio);
  TaskTimeDuration taskQuantum() const;
  bool taskSuspended() const;
  bool taskForceYieldInTest() const;
  unsigned char taskTestYieldRatio() const;
  /// @}

  /// The counters of one direction, `taskRunCount()` the sum of both. Writing those of the write
  /// side before there is a write task is an assertion; reading them gives 0.
  /// @{
  void taskWorkCountReadableInc(unsigned long count);
  void taskWorkCountWritableInc(unsigned long count);
  void taskWorkPendingReadableIs(unsigned pending);
  void taskWorkPendingWritableIs(unsigned pending);
  std::uint64_t taskWorkCountReadableTotal() const;
  std::uint64_t taskWorkCountWritableTotal() const;
  float taskWorkCountReadableDecayAvg() const;
  float taskWorkCountWritableDecayAvg() const;
  TaskMaybeU32 taskWorkCountReadableHighWaterMark() const;
  TaskMaybeU32 taskWorkCountWritableHighWaterMark() const;
  std::uint32_t taskWorkPendingReadable() const;
  std::uint32_t taskWorkPendingWritable() const;
  TaskMaybeU32 taskWorkPendingReadableHighWaterMark() const;
  TaskMaybeU32 taskWorkPendingWritableHighWaterMark() const;
  std::uint32_t taskRunCountReadable() const;
  std::uint32_t taskRunCountWritable() const;
  std::uint32_t taskRunCount() const;
  /// @}

 private:
  class ReadWriteTaskBase;
  class ReadTask;
  class WriteTask;

  void initialize();
  void checkCreateWriteTask();
  WriteTask& existingWriteTask(char const* func);
  TaskImpl& executingTask() const;
  void dropWatch();
  void pauseReads();
  void resumeReads(unsigned passes = 0);
  unsigned othersFirst() const;
  void _taskExecuteReadable();
  void _taskExecuteWritable();

  bool taskWatchReadable_ = false;
  bool taskWatchWritable_ = false;
  bool readsPaused_ = false;  // the platform's watch is off until the read task is idle
  std::shared_ptr<Platform::FdControl> fdControl_;
  std::shared_ptr<ReadTask> readTask_;
  std::shared_ptr<WriteTask> writeTask_;
  TaskImpl* executingTask_ = nullptr;
};

}  // namespace Brelo
