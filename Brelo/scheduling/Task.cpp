#include "Brelo/Task.h"

#include <utility>

namespace Brelo {

Task::Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name)
    : TaskImpl(std::move(scheduler), priority, name) {}

Task::Task(TaskScheduler* scheduler, TaskPriority priority, std::string name)
    : TaskImpl(sharedScheduler(scheduler), priority, name) {}

bool Task::taskScheduled() const {
  return TaskImpl::taskScheduled();
}

void Task::scheduleTask() {
  TaskImpl::scheduleTask();
}

void Task::taskRunFromTest() {
  TaskImpl::taskRunFromTest();
}

TaskStat::TaskStatus Task::taskStatus() const {
  return TaskImpl::taskStatus();
}

}  // namespace Brelo
