#pragma once

#include <memory>
#include <string>

#include "Brelo/Export.h"
#include "Brelo/Platform.h"
#include "Brelo/Task.h"

/// @file
/// Controls that run their handler as a task: at a priority, with a name and statistics, in turn
/// with all other tasks of a scheduler. A client of the plain controls moves onto a scheduler by
/// asking for one of these; its handler stays as it is.
///
/// Each is a task and a control in one, and each operation of the control is the task's operation
/// of the same meaning. All of it belongs to the scheduler's thread. What `timeout()` or
/// `callback()` throws goes on into the task's run; the handler is asked only by TaskFdControl.

namespace Brelo::Platform {

/// A timer whose expiry queues a task.
class BRELO_EXPORT TaskTimerControl : public TimerTask, public TimerControl {
 public:
  /// The handler must outlive the control. Clients come by one through `getTimerControl`.
  TaskTimerControl(TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                   TaskPriority priority, std::string name);

  void taskExecute() override;
  void setTimeout(double seconds) override;
  void delTimeout() override;
  double remainingTimeout() const override;
};

/// A callback request that queues a task.
class BRELO_EXPORT TaskCallbackControl : public Task, public CallbackControl {
 public:
  /// The handler must outlive the control. Clients come by one through `getCallbackControl`.
  TaskCallbackControl(CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                      TaskPriority priority, std::string name);

  void taskExecute() override;
  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;
};

/// A descriptor watch whose events queue tasks. `clearEvents()` forgets the descriptor, as
/// `delFd()` does.
class BRELO_EXPORT TaskFdControl : public FileDescriptorTask, public FdControl {
 public:
  /// The handler must outlive the control. Clients come by one through `getFdControl`.
  TaskFdControl(Platform::FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                TaskPriority priority, std::string name);

  void taskExecuteReadable() override;
  void taskExecuteWritable() override;
  void setReads(bool on) override;
  void setWrites(bool on) override;
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override;
  void clearEvents() override;

 private:
  template <class Notify>
  void guarded(Notify notify);
};

/// A new control. The handler must outlive it; the scheduler and its thread run it.
/// @{
BRELO_EXPORT std::shared_ptr<TaskTimerControl> getTimerControl(
    TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
    std::string name);
BRELO_EXPORT std::shared_ptr<TaskCallbackControl> getCallbackControl(
    CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
    std::string name);
BRELO_EXPORT std::shared_ptr<TaskFdControl> getFdControl(FdEventHandler* handler,
                                                         std::shared_ptr<TaskScheduler> scheduler,
                                                         TaskPriority priority, std::string name);
/// @}

/// Always false.
BRELO_EXPORT bool releaseMode();

}  // namespace Brelo::Platform
