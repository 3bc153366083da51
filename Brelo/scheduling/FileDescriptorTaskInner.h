#pragma once

#include "Brelo/Task.h"

/// @file
/// The two tasks behind a FileDescriptorTask. In a run they may outlive their
/// owner, which orphans them: the run is then empty.

namespace Brelo {

class FileDescriptorTask::ReadWriteTaskBase : public Task {
 public:
  using Task::scheduleTaskAt;
  using Task::unscheduleTaskAt;

  void handleTaskBusy() override;
  void orphanIs() { fileDescriptorTask_ = nullptr; }

 protected:
  bool handleTaskException() override;
  ReadWriteTaskBase(FileDescriptorTask* owner, char const* suffix);

  FileDescriptorTask* fileDescriptorTask_;
};

class FileDescriptorTask::ReadTask : public ReadWriteTaskBase {
 public:
  ReadTask(FileDescriptorTask* owner, char const* suffix) : ReadWriteTaskBase(owner, suffix) {}

  void handleTaskBusy() override;
  void handleResetStats() override;
  void taskExecute() override;
};

class FileDescriptorTask::WriteTask : public ReadWriteTaskBase {
 public:
  WriteTask(FileDescriptorTask* owner, char const* suffix) : ReadWriteTaskBase(owner, suffix) {}

  void taskExecute() override;
};

}  // namespace Brelo
