#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Brelo/Task.h"
#include "Brelo/TaskScheduler.h"
#include "Brelo/reports/StringStream.h"

/// @file
/// The two tasks of an export of snapshots over a slow descriptor; clients call
/// `TaskScheduler::snapshotRenderJsonAsync`. They take turns: the first renders one snapshot, the
/// second writes that text out as the descriptor takes it, so one chunk of text exists at a time
/// and no run is long. An exception from a run of either ends the export.

namespace Brelo {

class TaskScheduler::SnapshotWriteJsonTask : public FileDescriptorTask {
 public:
  SnapshotWriteJsonTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                        std::string name, int fd, std::function<void()> writeCompleteFn,
                        std::function<void()> writeFailedFn);
  /// A chunk that is not fully written is an assertion.
  ~SnapshotWriteJsonTask() override;

  /// Takes a chunk and starts to write; the one before must be done.
  void writeStrIs(std::string text);
  /// Asserts that the chunk is gone.
  void assertWriteComplete() const;
  /// Frees the chunk, with what is left of it.
  void dropChunk();
  void taskExecuteReadable() override;
  void taskExecuteWritable() override;

 private:
  void writeChunk();
  bool writeSome();
  bool writeFailed(int error, std::uint32_t left);
  std::uint32_t size() const { return static_cast<std::uint32_t>(writeStr_.size()); }

  std::string writeStr_;
  std::uint32_t writeOffset_ = 0;
  std::function<void()> writeCompleteFn_;
  std::function<void()> writeFailedFn_;  // for an exception that leaves a run
};

class TaskScheduler::SnapshotRenderJsonTask : public Task {
 public:
  using Snapshots = std::vector<std::shared_ptr<TaskSchedulerSnapshot const>>;

  /// The descriptor belongs to the export until its end.
  SnapshotRenderJsonTask(TaskScheduler* scheduler, TaskPriority priority, int fd,
                         Snapshots snapshots,
                         std::function<void(SnapshotRenderJsonTask*)> unregisterFn,
                         std::function<void()> completionFn);

  /// One step: a snapshot, the closing text, or the end.
  void taskExecute() override;
  /// Hands what was rendered to the write task.
  void writeOstrToFileDescriptor();
  /// The write task has finished a chunk; without one under way it is an assertion.
  void writeComplete();

 private:
  void renderNext();
  void end();

  int fd_;
  bool finalWritePosted_ = false;
  bool writeInProgress_ = false;
  unsigned nextSnapshot_ = 0;
  Snapshots snapshots_;
  Impl::StringStream ostr_;
  TaskSchedulerPrintContext printContext_;
  std::shared_ptr<SnapshotWriteJsonTask> writeTask_;
  std::function<void(SnapshotRenderJsonTask*)> unregisterFn_;
  std::function<void()> completionFn_;
};

}  // namespace Brelo
