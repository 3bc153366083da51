#include "Brelo/reports/TextReport.h"

#include <fmt/compile.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "Brelo/reports/ReportFigures.h"

namespace Brelo {

using Impl::seconds;

namespace {

struct LegendLine {
  char const* column;
  char const* meaning;
  bool completedOnly = false;
};
constexpr LegendLine legend[] = {
    {"SP", "= Task status and priority % two characters:"},
    {"   first", "  T/t for active/idle timers, * for running task or blank"},
    {"   second", "  priority and runnable status, upper case for runnable"},
    {"RunCount", "= Number of times task has run"},
    {"TotalSec", "= Total run time in seconds"},
    {"LastDelay", "= Scheduling delay last time task ran, in seconds"},
    {"MaxDelay", "= Maximum scheduling delay encountered, in seconds"},
    {"200% 500%", "= Number of times task used this percentage of quantum"},
    {"MaxMs", "= Maximum single run time in milliseconds"},
    {"Completed", "= Number of times a task with this name has completed", true},
    {"TotalWorkCount", "= Counter of total work units processed"},
    {"DecayAvgWorkCount", "=    exponential decaying average of work units processed"},
    {"MaxWorkCount", "=    high watermark of work units processed in one run"},
    {"LastWorkPending", "= Work units pending processing"},
    {"MaxWorkPending", "=    high watermark of work units pending processing"},
};

/// A line in the making, written out at its end.
class Line {
 public:
  explicit Line(std::ostream& stream) : stream_(stream) {}

  template <class Format, class... Values>
  Line& format(Format const& format, Values const&... values) {
    fmt::format_to(fmt::appender(text_), format, values...);
    return *this;
  }
  Line& add(std::string_view text) {
    text_.append(text.data(), text.data() + text.size());
    return *this;
  }
  /// The text, and blanks up to the width.
  Line& addLeft(std::string_view text, std::size_t width) {
    add(text);
    for (std::size_t i = text.size(); i < width; ++i)
      text_.push_back(' ');
    return *this;
  }
  std::size_t size() const { return text_.size(); }
  void end() {
    text_.push_back('\n');
    stream_.write(text_.data(), static_cast<std::streamsize>(text_.size()));
    text_.clear();
  }

 private:
  std::ostream& stream_;
  fmt::memory_buffer text_;
};

void renderPriorities(Line& line, TaskSchedulerQueueStats const& queueStats) {
  line.add("Priority RunnableCount     IdleCount DoneCount   TotalRunCount").end();
  line.add(std::string(62, '-')).end();
  for (unsigned char level = 0; level < TaskPriority::levels; ++level) {
    TaskPriority const priority(level);
    TaskSchedulerPriorityStats const stats = Impl::statsOfLevel(queueStats, priority);
    line.addLeft(priority.toStrep(), 8)
        .format(FMT_COMPILE(" {:>13} {:>13} {:>9} {:>15}"), stats.runnableTasks, stats.idleTasks,
                stats.completedTasks, stats.totalRunCount)
        .end();
  }
}

std::string rowName(TaskStat const& task, bool showTaskKey) {
  return showTaskKey ? task.taskName() + task.taskKey.toStrep() : task.taskName();
}

std::size_t nameWidth(std::vector<TaskStat const*> const& tasks, std::string_view title,
                      bool showTaskKey) {
  auto const longest =
      std::max_element(tasks.begin(), tasks.end(), [](TaskStat const* a, TaskStat const* b) {
        return a->taskNameRef().string().size() < b->taskNameRef().string().size();
      });
  if (longest == tasks.end()) return title.size();
  return std::max(rowName(**longest, showTaskKey).size(), title.size());
}

void renderRow(Line& line, TaskStat const& task, std::size_t width, bool completed,
               bool showTaskKey) {
  line.addLeft(rowName(task, showTaskKey), width)
      .format(FMT_COMPILE(" {:>2} {:>10} {:>13.3f} {:>6.3f} {:>7.3f} {:>4} {:>4} {:>5}"),
              task.taskStatusString(), task.taskRunCount, seconds(task.taskTotalRunTime),
              seconds(task.taskLastSchedulingLatency()),
              seconds(task.taskSchedulingLatencyHighWaterMark()), task.taskQuantumViolation200,
              task.taskQuantumViolation500,
              static_cast<std::uint64_t>(Impl::wholeMilliseconds(task.taskRunTimeHighWaterMark())));
  if (completed) line.format(FMT_COMPILE(" {:>4}"), task.taskCompletedCount);
  if (task.taskWorkCountHighWaterMark.isSet()) {
    line.format(FMT_COMPILE(" {:>10} {:>8.1f} {:>6}"), task.taskWorkCountTotal,
                double{task.taskWorkCountDecayAvg}, task.taskWorkCountHighWaterMark.value());
  } else {
    line.add("          -        -      -");
  }
  if (task.taskWorkPendingHighWaterMark.isSet()) {
    line.format(FMT_COMPILE(" {:>9} {:>10}"), task.taskWorkPending,
                task.taskWorkPendingHighWaterMark.value());
  } else {
    line.add("         -          -");
  }
  line.end();
}

void statsRenderTextTasks(Line& line, std::vector<TaskStat const*>& tasks, std::string_view title,
                          unsigned skipped, bool completed, bool showTaskKey) {
  Impl::sortHeaviestFirst(tasks);
  std::size_t const width = nameWidth(tasks, title, showTaskKey);
  line.addLeft(title, width)
      .add(" SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs")
      .add(completed ? " Completed" : "")
      .add(" Total/DecayA/Max-WorkCount Last/Max-WorkPending")
      .end();
  // The word "Completed" is wider than its column and shifts the headers behind it by 5.
  line.add(std::string(width + 107 + (completed ? 5 : 0), '-')).end();
  for (TaskStat const* task : tasks)
    renderRow(line, *task, width, completed, showTaskKey);
  if (skipped == 0) return;
  line.format(FMT_COMPILE("Skipped {} task{} with no runs\n"), skipped, skipped == 1 ? "" : "s")
      .end();
}

void statsRenderTextImpl(Line& line, TaskSchedulerQueueStats const& queueStats,
                         TaskTimeDuration slip, std::vector<TaskStat const*>* tasks,
                         unsigned skipped, std::vector<TaskStat const*>* completed,
                         unsigned skippedCompleted, bool showTaskKey) {
  renderPriorities(line, queueStats);
  line.format(FMT_COMPILE("Maximum scheduler slip {:.6f} seconds\n"), seconds(slip)).end();
  for (LegendLine const& entry : legend) {
    if (entry.completedOnly && completed == nullptr) continue;
    line.addLeft(entry.column, 17).add(" ").add(entry.meaning).end();
  }
  line.end();
  statsRenderTextTasks(line, *tasks, "TaskName", skipped, false, showTaskKey);
  if (completed != nullptr) {
    statsRenderTextTasks(line, *completed, "TaskName (completed)", skippedCompleted, true, false);
  }
}

void addPointers(std::vector<TaskStat const*>& pointers, std::vector<TaskStat> const& tasks) {
  for (TaskStat const& task : tasks)
    pointers.push_back(&task);
}

std::int64_t nanoseconds(TaskSchedulerHistory::Event const& event) {
  return TaskTimeDuration(event.eventTime().time_since_epoch()).count();
}

}  // namespace

void Impl::renderText(std::ostream& stream, std::vector<TaskSchedulerSnapshot> const& schedulers,
                      bool showTaskKey, bool includeCompleted) {
  std::vector<TaskStat const*> tasks;
  std::vector<TaskStat const*> completed;
  unsigned skipped = 0;
  unsigned skippedCompleted = 0;
  TaskSchedulerQueueStats queueStats;
  TaskTimeDuration slip;
  for (TaskSchedulerSnapshot const& scheduler : schedulers) {
    addPointers(tasks, scheduler.tasks());
    addPointers(completed, scheduler.completedTasks());
    skipped += scheduler.skippedTasks();
    skippedCompleted += scheduler.skippedCompletedTasks();
    queueStats += scheduler.queueStats();
    if (scheduler.isRootScheduler()) slip = scheduler.maxSchedulerSlip();
  }
  Line line(stream);
  statsRenderTextImpl(line, queueStats, slip, &tasks, skipped,
                      includeCompleted ? &completed : nullptr, skippedCompleted, showTaskKey);
  for (TaskSchedulerSnapshot const& scheduler : schedulers) {
    if (scheduler.history() != nullptr) scheduler.history()->renderText(stream);
  }
}

void TaskSchedulerSnapshot::History::renderText(std::ostream& stream) const {
  Line line(stream);
  line.format(FMT_COMPILE("Last {} scheduler events, absolute timestamp and"
                          " relative to last event"),
              historyEntryCount);
  std::size_t const width = line.size();
  line.end();
  line.add(std::string(width, '-')).end();
  for (TaskSchedulerHistory::Event const& event : events_) {
    std::int64_t const time = nanoseconds(event);
    std::int64_t const age = (nanoseconds(events_.front()) - time) / 1000;
    line.format(FMT_COMPILE("{:>22} ns since boot {:>10} µs {}"), time, age, event.display()).end();
    stream.flush();
  }
  line.end();
}

void TaskSchedulerHistory::renderText(std::ostream& stream) const {
  TaskSchedulerSnapshot::History(*this).renderText(stream);
}

}  // namespace Brelo
