#include "Brelo/TaskControl.h"

#include <utility>

#include "Brelo/MemTrack.h"

namespace Brelo::Platform {

TaskTimerControl::TaskTimerControl(TimeoutHandler* handler,
                                   std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                                   std::string name)
    : TimerTask(std::move(scheduler), priority, std::move(name)), TimerControl(handler) {}

void TaskTimerControl::taskExecute() {
  handler_->timeout();
}

void TaskTimerControl::setTimeout(double seconds) {
  scheduleTaskDelay(seconds);
}

void TaskTimerControl::delTimeout() {
  stopTimerTask();
}

double TaskTimerControl::remainingTimeout() const {
  return timerRemaining();
}

TaskCallbackControl::TaskCallbackControl(CallbackHandler* handler,
                                         std::shared_ptr<TaskScheduler> scheduler,
                                         TaskPriority priority, std::string name)
    : Task(std::move(scheduler), priority, std::move(name)), CallbackControl(handler) {}

void TaskCallbackControl::taskExecute() {
  handler_->callback();
}

void TaskCallbackControl::requestCallback() {
  TaskImpl::scheduleTask();
}

void TaskCallbackControl::cancelCallback() {
  unscheduleTask();
}

bool TaskCallbackControl::pendingCallback() const {
  return TaskImpl::taskScheduled();
}

TaskFdControl::TaskFdControl(Platform::FdEventHandler* handler,
                             std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                             std::string name)
    : FileDescriptorTask(std::move(scheduler), priority, std::move(name)), FdControl(handler) {}

template <class Notify>
void TaskFdControl::guarded(Notify notify) {
  try {
    notify();
  } catch (...) {
    if (!handler_->handleFdException(getFd())) throw;
  }
}

void TaskFdControl::taskExecuteReadable() {
  guarded([this] { handler_->readFdEvent(getFd()); });
}

void TaskFdControl::taskExecuteWritable() {
  guarded([this] { handler_->writeFdEvent(getFd()); });
}

void TaskFdControl::setReads(bool on) {
  taskWatchReadableIs(on);
}

void TaskFdControl::setWrites(bool on) {
  taskWatchWritableIs(on);
}

void TaskFdControl::setFd(int fd) {
  taskWatchFdIs(fd);
}

void TaskFdControl::delFd() {
  taskWatchFdDel();
}

int TaskFdControl::getFd() const {
  return taskWatchFd();
}

void TaskFdControl::clearEvents() {
  taskWatchFdDel();
}

std::shared_ptr<TaskTimerControl> getTimerControl(TimeoutHandler* handler,
                                                  std::shared_ptr<TaskScheduler> scheduler,
                                                  TaskPriority priority, std::string name) {
  return makeTracked<TaskTimerControl>(handler, std::move(scheduler), priority, std::move(name));
}

std::shared_ptr<TaskCallbackControl> getCallbackControl(CallbackHandler* handler,
                                                        std::shared_ptr<TaskScheduler> scheduler,
                                                        TaskPriority priority, std::string name) {
  return makeTracked<TaskCallbackControl>(handler, std::move(scheduler), priority, std::move(name));
}

std::shared_ptr<TaskFdControl> getFdControl(FdEventHandler* handler,
                                            std::shared_ptr<TaskScheduler> scheduler,
                                            TaskPriority priority, std::string name) {
  return makeTracked<TaskFdControl>(handler, std::move(scheduler), priority, std::move(name));
}

bool releaseMode() {
  return false;
}

}  // namespace Brelo::Platform
