#include "BreloDaemon/FunctionTask.h"

namespace BreloDaemon {

namespace {

class Inner : public Brelo::Task {
 public:
  Inner(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
        std::string name, FunctionTask::Work work)
      : Task(std::move(scheduler), priority, std::move(name)), work_(std::move(work)) {}

  void taskExecute() override { work_(*this); }

 private:
  FunctionTask::Work work_;
};

}  // namespace

FunctionTask::FunctionTask(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                           Brelo::TaskPriority priority, std::string name, Work work,
                           std::nullptr_t)
    : task_(std::make_shared<Inner>(std::move(scheduler), priority, std::move(name),
                                    std::move(work))) {}

FunctionTask& FunctionTask::operator=(FunctionTask&& other) noexcept {
  FunctionTask(std::move(other)).task_.swap(task_);
  return *this;
}

FunctionTask::~FunctionTask() {
  if (task_ != nullptr) cancel();
}

void FunctionTask::schedule() {
  task_->scheduleTask();
}

void FunctionTask::cancel() {
  task_->unscheduleTask();
}

bool FunctionTask::scheduled() const {
  return task_->taskScheduled();
}

}  // namespace BreloDaemon
