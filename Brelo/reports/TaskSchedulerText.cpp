// The text report of a whole scheduler tree, for people.

#include <fmt/compile.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Brelo/FdToStream.h"
#include "Brelo/TaskScheduler.h"

namespace Brelo {

namespace {

double seconds(TaskTimeDuration duration) {
  return static_cast<double>(duration.count()) / 1e9;
}

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
    fmt::format_to(std::back_inserter(text_), format, values...);
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
  for (unsigned char level = 0; level < 5; ++level) {
    TaskPriority const priority(level);
    auto const found = queueStats.find(priority);
    TaskSchedulerPriorityStats const stats =
        found == queueStats.end() ? TaskSchedulerPriorityStats() : found->second;
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

std::uint64_t wholeMilliseconds(TaskTimeDuration duration) {
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(seconds(duration) * 1000.0));
}

void renderRow(Line& line, TaskStat const& task, std::size_t width, bool completed,
               bool showTaskKey) {
  line.addLeft(rowName(task, showTaskKey), width)
      .format(FMT_COMPILE(" {:>2} {:>10} {:>13.3f} {:>6.3f} {:>7.3f} {:>4} {:>4} {:>5}"),
              task.taskStatusString(), task.taskRunCount, seconds(task.taskTotalRunTime),
              seconds(task.taskLastSchedulingLatency()),
              seconds(task.taskSchedulingLatencyHighWaterMark()), task.taskQuantumViolation200,
              task.taskQuantumViolation500, wholeMilliseconds(task.taskRunTimeHighWaterMark()));
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

void statsRenderTextTasks(std::ostream& stream, std::vector<TaskStat> const& tasks,
                          std::string_view title, unsigned skipped, bool completed,
                          bool showTaskKey) {
  std::vector<TaskStat const*> const sorted = heaviestFirst(tasks);
  std::size_t const width = nameWidth(sorted, title, showTaskKey);
  Line line(stream);
  line.addLeft(title, width)
      .add(" SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs")
      .add(completed ? " Completed" : "")
      .add(" Total/DecayA/Max-WorkCount Last/Max-WorkPending")
      .end();
  // The word "Completed" is wider than its column and shifts the headers behind it by 5.
  line.add(std::string(width + 107 + (completed ? 5 : 0), '-')).end();
  for (TaskStat const* task : sorted)
    renderRow(line, *task, width, completed, showTaskKey);
  if (skipped == 0) return;
  line.format(FMT_COMPILE("Skipped {} task{} with no runs\n"), skipped, skipped == 1 ? "" : "s")
      .end();
}

void statsRenderTextImpl(std::ostream& stream, TaskSchedulerQueueStats const& queueStats,
                         TaskTimeDuration slip, std::vector<TaskStat>* tasks, unsigned skipped,
                         std::vector<TaskStat>* completed, unsigned skippedCompleted,
                         bool showTaskKey) {
  Line line(stream);
  renderPriorities(line, queueStats);
  line.format(FMT_COMPILE("Maximum scheduler slip {:.6f} seconds\n"), seconds(slip)).end();
  for (LegendLine const& entry : legend) {
    if (entry.completedOnly && completed == nullptr) continue;
    line.addLeft(entry.column, 17).add(" ").add(entry.meaning).end();
  }
  line.end();
  statsRenderTextTasks(stream, *tasks, "TaskName", skipped, false, showTaskKey);
  if (completed != nullptr) {
    statsRenderTextTasks(stream, *completed, "TaskName (completed)", skippedCompleted, true, false);
  }
}

}  // namespace

void TaskSchedulerRoot::statsRenderTextForDebug(std::ostream& stream, bool includeNeverRun,
                                                bool showTaskKey, bool includeCompleted,
                                                bool includeHistory) const {
  sanityCheckCurrentRunningThread();
  std::vector<TaskStat> tasks;
  std::vector<TaskStat> completed;
  unsigned skipped = 0;
  unsigned skippedCompleted = 0;
  for (TaskScheduler const* scheduler : schedulers_) {
    skipped += scheduler->getTaskStats(&tasks, includeNeverRun);
    if (includeCompleted) {
      skippedCompleted += scheduler->getCompletedTaskStats(&completed, includeNeverRun);
    }
  }
  statsRenderTextImpl(stream, queueStatsRoot(), maxSchedulerSlip(), &tasks, skipped,
                      includeCompleted ? &completed : nullptr, skippedCompleted, showTaskKey);
  if (includeHistory) historyRenderTextForDebug(stream);
}

void TaskSchedulerRoot::statsRenderTextForDebug(int fd, bool includeNeverRun, bool showTaskKey,
                                                bool includeCompleted, bool includeHistory) const {
  FdToStream stream(fd, false);
  statsRenderTextForDebug(stream, includeNeverRun, showTaskKey, includeCompleted, includeHistory);
}

std::string TaskSchedulerRoot::statsRenderTextForDebugToString(bool includeNeverRun,
                                                               bool showTaskKey,
                                                               bool includeCompleted,
                                                               bool includeHistory) const {
  std::ostringstream text;
  statsRenderTextForDebug(text, includeNeverRun, showTaskKey, includeCompleted, includeHistory);
  return text.str();
}

void TaskSchedulerRoot::statsRenderTextForDebugStdErr() const {
  statsRenderTextForDebug(std::cerr, true, true, true, false);
}

void TaskSchedulerRoot::historyRenderTextForDebug(std::ostream& stream) const {
  history().renderText(stream);
}

void TaskSchedulerRoot::historyRenderTextForDebug(int fd) const {
  FdToStream stream(fd, false);
  historyRenderTextForDebug(stream);
}

void TaskSchedulerRoot::historyRenderTextForDebugStdErr() const {
  historyRenderTextForDebug(std::cerr);
}

std::string TaskSchedulerRoot::historyRenderTextForDebugToString() const {
  std::ostringstream text;
  historyRenderTextForDebug(text);
  return text.str();
}

}  // namespace Brelo
