// The JSON form of a snapshot.

#include "Brelo/TaskSchedulerSnapshot.h"
#include "Brelo/reports/JsonWriter.h"
#include "Brelo/reports/ReportFigures.h"

namespace Brelo {

using Impl::JsonWriter;
using Impl::seconds;

namespace {

void writeWorkCount(JsonWriter& writer, TaskStat const& task) {
  writer.Key("workCount");
  writer.StartObject();
  writer.Key("total");
  writer.Uint(static_cast<std::uint32_t>(task.taskWorkCountTotal));
  writer.Key("decayingAvg");
  writer.Double(double{task.taskWorkCountDecayAvg});
  writer.Key("highwater");
  // Signed, unlike its namesake below; readers of the document know it so.
  writer.Int(static_cast<std::int32_t>(task.taskWorkCountHighWaterMark.value()));
  writer.EndObject();
}

void writeWorkPending(JsonWriter& writer, TaskStat const& task) {
  writer.Key("workPending");
  writer.StartObject();
  writer.Key("pending");
  writer.Uint(task.taskWorkPending);
  writer.Key("highwater");
  writer.Uint(task.taskWorkPendingHighWaterMark.value());
  writer.EndObject();
}

void writeTask(JsonWriter& writer, TaskStat const& task, bool completed) {
  writer.StartObject();
  writer.Key("name");
  writer.String(task.taskNameRef().string());
  if (!completed) {
    writer.Key("address");
    writer.String(task.taskKey.toStrep());
  }
  writer.Key("priority");
  writer.String(task.taskPriority.toStrep());
  if (task.taskStatus.taskIsTaskGroup()) {
    writer.Key("subScheduler");
    writer.String(Impl::subSchedulerKey(task));
  }
  writer.Key("onRunQueue");
  writer.Bool(task.taskStatus.taskOnRunQueue());
  writer.Key("currentlyRunning");
  writer.Bool(task.taskStatus.taskCurrentlyRunning());
  writer.Key("suspended");
  writer.Bool(task.taskStatus.taskSuspended());
  writer.Key("hasTimer");
  writer.Bool(task.taskStatus.taskTimer());
  writer.Key("timerRunning");
  writer.Bool(task.taskStatus.taskTimerRunning());
  writer.Key("runCount");
  writer.Uint(task.taskRunCount);
  writer.Key("totalRunTime");
  writer.Double(seconds(task.taskTotalRunTime));
  writer.Key("lastSchedulingLatency");
  writer.Double(seconds(task.taskLastSchedulingLatency()));
  writer.Key("schedulingLatencyHighWaterMark");
  writer.Double(seconds(task.taskSchedulingLatencyHighWaterMark()));
  writer.Key("qv200");
  writer.Uint(task.taskQuantumViolation200);
  writer.Key("qv500");
  writer.Uint(task.taskQuantumViolation500);
  writer.Key("maxMs");
  writer.Uint(static_cast<std::uint32_t>(Impl::wholeMilliseconds(task.taskRunTimeHighWaterMark())));
  if (completed) {
    writer.Key("completedCount");
    writer.Uint(task.taskCompletedCount);
  }
  if (task.taskWorkCountHighWaterMark.isSet()) writeWorkCount(writer, task);
  if (task.taskWorkPendingHighWaterMark.isSet()) writeWorkPending(writer, task);
  writer.EndObject();
}

void writePriorityStats(JsonWriter& writer, TaskSchedulerQueueStats const& queueStats) {
  writer.Key("priorityStats");
  writer.StartObject();
  for (unsigned char level = 0; level < TaskPriority::levels; ++level) {
    TaskPriority const priority(level);
    TaskSchedulerPriorityStats const stats = Impl::statsOfLevel(queueStats, priority);
    writer.Key(priority.toStrep());
    writer.StartObject();
    writer.Key("runnableTasks");
    writer.Uint(stats.runnableTasks);
    writer.Key("idleTasks");
    writer.Uint(stats.idleTasks);
    writer.Key("completedTasks");
    writer.Uint(stats.completedTasks);
    writer.Key("totalRunCount");
    writer.Uint64(stats.totalRunCount);
    writer.EndObject();
  }
  writer.EndObject();
}

}  // namespace

void TaskSchedulerSnapshot::renderJson(TaskSchedulerPrintContext& context) const {
  JsonWriter::Part const part(context.writer());
  context.writer().Key(schedulerName_);
  renderJsonImpl(context);
  context.writer().flush();
}

void TaskSchedulerSnapshot::renderJsonImpl(TaskSchedulerPrintContext& context) const {
  JsonWriter& writer = context.writer();
  JsonWriter::Part const part(writer);
  writer.StartObject();
  writer.Key("schedulerName");
  writer.String(schedulerName_);
  if (displayOrder_ != displayOrderUnset) {
    writer.Key("displayOrder");
    writer.Int(static_cast<std::int32_t>(displayOrder_));
  }
  writer.Key("isRootScheduler");
  writer.Bool(isRootScheduler_);
  writePriorityStats(writer, queueStats_);
  writer.Key("maxSchedulerSlip");
  writer.Double(seconds(maxSchedulerSlip_));
  renderJsonTasks(context, tasks_, "tasks", skippedTasks_, false);
  if (!completedTasks_.empty()) {
    renderJsonTasks(context, completedTasks_, "completedTasks", skippedCompletedTasks_, true);
  }
  writer.Key("subSchedulers");
  writer.StartObject();
  for (auto const& [key, subScheduler] : subSchedulers_) {
    writer.Key(key);
    subScheduler.renderJsonImpl(context);
  }
  writer.EndObject();
  if (history_ != nullptr) history_->renderJson(context);
  writer.EndObject();
}

void TaskSchedulerSnapshot::renderJsonTasks(TaskSchedulerPrintContext& context,
                                            std::vector<TaskStat> const& tasks,
                                            std::string const& key, unsigned skipped,
                                            bool completed) {
  std::vector<TaskStat const*> sorted;
  sorted.reserve(tasks.size());
  for (TaskStat const& task : tasks)
    sorted.push_back(&task);
  Impl::sortHeaviestFirst(sorted);
  JsonWriter& writer = context.writer();
  JsonWriter::Part const part(writer);
  writer.Key(key);
  writer.StartObject();
  writer.Key("tasks");
  writer.StartArray();
  for (TaskStat const* task : sorted)
    writeTask(writer, *task, completed);
  writer.EndArray();
  writer.Key("skipped");
  writer.Uint(skipped);
  writer.EndObject();
}

void TaskSchedulerSnapshot::History::renderJson(TaskSchedulerPrintContext& context) const {
  JsonWriter& writer = context.writer();
  JsonWriter::Part const part(writer);
  writer.Key("history");
  writer.StartObject();
  writer.Key("historyEntryCount");
  writer.Uint(historyEntryCount);
  writer.Key("history");
  writer.StartArray();
  for (TaskSchedulerHistory::Event const& event : events_) {
    writer.StartObject();
    writer.Key("nsSinceBoot");
    writer.Uint64(
        static_cast<std::uint64_t>(TaskTimeDuration(event.eventTime().time_since_epoch()).count()));
    writer.Key("eventType");
    writer.String(event.eventTypeDisplay());
    if (!event.eventId().string().empty()) {
      writer.Key("eventId");
      writer.String(event.eventId().string());
    }
    writer.EndObject();
  }
  writer.EndArray();
  writer.EndObject();
}

}  // namespace Brelo
