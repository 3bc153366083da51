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
          taskScheduler(), priority, taskName() + writeSuffix, fd, [this] { writeComplete(); },
          [this] { end(); })),
      unregisterFn_(std::move(unregisterFn)),
      completionFn_(std::move(completionFn)) {
  writeTask_->taskStatsNameIs(fmt::format("{}{}", renderName, writeSuffix));
  taskStatsNameIs(renderName);
}

void TaskScheduler::SnapshotRenderJsonTask::taskExecute() {
  BRELO_SCHEDULER_ASSERT(!writeInProgress_, "Executing before previous write completed.");
  if (finalWritePosted_) {
    taskWorkPendingIs(0);
    return end();
  }
  try {
    renderNext();
  } catch (...) {
    end();
    throw;
  }
}

void TaskScheduler::SnapshotRenderJsonTask::renderNext() {
  if (nextSnapshot_ < snapshots_.size()) {
    snapshots_[nextSnapshot_]->renderJson(printContext_);
    ++nextSnapshot_;
    writeOstrToFileDescriptor();
    taskWorkCountInc(1);
    taskWorkPendingIs(static_cast<unsigned>(snapshots_.size() - nextSnapshot_));
    return;
  }
  taskWorkPendingIs(0);
  printContext_.closeJson();
  writeOstrToFileDescriptor();
  snapshots_.clear();
  finalWritePosted_ = true;
}

/// Lets go of everything, at whatever point of the export.
void TaskScheduler::SnapshotRenderJsonTask::end() {
  // Leaves the scheduler's set, also where the caller's function throws.
  struct Unregistered {
    SnapshotRenderJsonTask& task;
    ~Unregistered() { task.unregisterFn_(&task); }
  };
  auto const held = shared_from_this();
  writeTask_->dropChunk();
  writeTask_->taskWatchFdDel();
  writeTask_.reset();
  close(fd_);
  Unregistered const unregistered{*this};
  completionFn_();
}

void TaskScheduler::SnapshotRenderJsonTask::writeOstrToFileDescriptor() {
  writeInProgress_ = true;
  std::string text = ostr_.take();
  text.shrink_to_fit();  // it may wait for long
  writeTask_->writeStrIs(std::move(text));
}

void TaskScheduler::SnapshotRenderJsonTask::writeComplete() {
  BRELO_SCHEDULER_ASSERT(writeInProgress_, "Notified about an unexpected write complete");
  writeInProgress_ = false;
  scheduleTask();
}

void TaskSchedulerReports::snapshotRenderJsonAsync(
    int fd, std::vector<std::shared_ptr<TaskSchedulerSnapshot const>> snapshots,
    std::function<void()> done) {
  int const flags = fcntl(fd, F_GETFL);
  if ((flags & O_NONBLOCK) == 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  using RenderTask = TaskScheduler::SnapshotRenderJsonTask;
  TaskScheduler& self = scheduler();
  self.root().sanityCheckCurrentRunningThread();
  auto& underWay = self.parts_->renderJsonTasks_;
  auto const unregister = [&underWay](RenderTask* task) {
    underWay.erase(std::static_pointer_cast<RenderTask>(task->shared_from_this()));
  };
  auto const task = makeTracked<RenderTask>(&self, self.ownTaskPriority_, fd, std::move(snapshots),
                                            unregister, std::move(done));
  underWay.insert(task);
  try {
    task->scheduleTask();
  } catch (...) {
    underWay.erase(task);
    throw;
  }
}

void TaskSchedulerReports::snapshotRenderJsonAsync(
    int fd, std::vector<std::shared_ptr<TaskSchedulerSnapshot const>> snapshots) {
  snapshotRenderJsonAsync(fd, std::move(snapshots), [] {});
}

void TaskSchedulerReports::snapshotRenderJsonAsync(
    int fd, std::shared_ptr<TaskSchedulerSnapshot const> snapshot) {
  snapshotRenderJsonAsync(
      fd, std::vector<std::shared_ptr<TaskSchedulerSnapshot const>>{std::move(snapshot)});
}

}  // namespace Brelo
