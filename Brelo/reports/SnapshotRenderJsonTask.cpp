#include "Brelo/reports/SnapshotRenderJsonTask.h"

#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "Brelo/MemTrack.h"
#include "Brelo/scheduling/SchedulerDiagnostics.h"
#include "Brelo/scheduling/TaskSchedulerParts.h"

namespace Brelo {

namespace {

constexpr char const* renderName = "TaskSchedulerRenderJson";
constexpr char const* writeSuffix = ":FdWrite";

}  // namespace

TaskScheduler::SnapshotRenderJsonTask::SnapshotRenderJsonTask(
    TaskScheduler* scheduler, TaskPriority priority, int fd, Snapshots snapshots,
    std::function<void(SnapshotRenderJsonTask*)> unregisterFn, std::function<void()> completionFn)
    : Task(scheduler, priority, fmt::format("{}-fd:{}", renderName, fd)),
      fd_(fd),
      snapshots_(std::move(snapshots)),
      printContext_(ostr_),
      writeTask_(makeTracked<SnapshotWriteJsonTask>(
          taskScheduler(), priority, taskName() + writeSuffix, fd, [this] { writeComplete(); })),
      unregisterFn_(std::move(unregisterFn)),
      completionFn_(std::move(completionFn)) {
  writeTask_->taskStatsNameIs(fmt::format("{}{}", renderName, writeSuffix));
  taskStatsNameIs(renderName);
}

void TaskScheduler::SnapshotRenderJsonTask::taskExecute() {
  BRELO_SCHEDULER_ASSERT(!writeInProgress_, "Executing before previous write completed.");
  if (nextSnapshot_ < snapshots_.size()) {
    snapshots_[nextSnapshot_]->renderJson(printContext_);
    ++nextSnapshot_;
    writeOstrToFileDescriptor();
    taskWorkCountInc(1);
    taskWorkPendingIs(static_cast<unsigned>(snapshots_.size() - nextSnapshot_));
    return;
  }
  taskWorkPendingIs(0);
  if (finalWritePosted_) return finish();
  printContext_.closeJson();
  writeOstrToFileDescriptor();
  snapshots_.clear();
  finalWritePosted_ = true;
}

void TaskScheduler::SnapshotRenderJsonTask::finish() {
  writeTask_->taskWatchFdDel();
  writeTask_.reset();
  close(fd_);
  completionFn_();
  unregisterFn_(this);
}

void TaskScheduler::SnapshotRenderJsonTask::writeOstrToFileDescriptor() {
  writeInProgress_ = true;
  writeTask_->writeStrIs(ostr_.str());
  ostr_.str("");
  ostr_.clear();
}

void TaskScheduler::SnapshotRenderJsonTask::writeComplete() {
  BRELO_SCHEDULER_ASSERT(writeInProgress_, "Notified about an unexpected write complete");
  writeInProgress_ = false;
  scheduleTask();
}

void TaskScheduler::snapshotRenderJsonAsync(
    int fd, std::vector<std::shared_ptr<TaskSchedulerSnapshot const>> snapshots,
    std::function<void()> done) {
  int const flags = fcntl(fd, F_GETFL);
  if ((flags & O_NONBLOCK) == 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  root().sanityCheckCurrentRunningThread();
  auto const unregister = [this](SnapshotRenderJsonTask* task) {
    parts_->renderJsonTasks_.erase(
        std::static_pointer_cast<SnapshotRenderJsonTask>(task->shared_from_this()));
  };
  auto const task = makeTracked<SnapshotRenderJsonTask>(
      this, ownTaskPriority_, fd, std::move(snapshots), unregister, std::move(done));
  task->scheduleTask();
  parts_->renderJsonTasks_.insert(task);
}

void TaskScheduler::snapshotRenderJsonAsync(
    int fd, std::vector<std::shared_ptr<TaskSchedulerSnapshot const>> snapshots) {
  snapshotRenderJsonAsync(fd, std::move(snapshots), [] {});
}

void TaskScheduler::snapshotRenderJsonAsync(int fd,
                                            std::shared_ptr<TaskSchedulerSnapshot const> snapshot) {
  snapshotRenderJsonAsync(
      fd, std::vector<std::shared_ptr<TaskSchedulerSnapshot const>>{std::move(snapshot)});
}

}  // namespace Brelo
