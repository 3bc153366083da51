// The text report of a whole scheduler tree, for people.

#include <algorithm>
#include <boost/format.hpp>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Brelo/FdToStream.h"
#include "Brelo/TaskScheduler.h"

namespace Brelo {

namespace {

using boost::format;

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

void renderPriorities(std::ostream& stream, TaskSchedulerQueueStats const& queueStats) {
  stream << format("%-8s %13s %13s %9s %15s\n") % "Priority" % "RunnableCount" % "IdleCount" %
                "DoneCount" % "TotalRunCount";
  stream << std::string(62, '-') << "\n";
  for (unsigned char level = 0; level < 5; ++level) {
    TaskPriority const priority(level);
    auto const found = queueStats.find(priority);
    TaskSchedulerPriorityStats const stats =
        found == queueStats.end() ? TaskSchedulerPriorityStats() : found->second;
    stream << format("%-8s %13u %13u %9u %15lu\n") % priority.toStrep() % stats.runnableTasks %
                  stats.idleTasks % stats.completedTasks % stats.totalRunCount;
  }
}

std::string rowName(TaskStat const& task, bool showTaskKey) {
  return showTaskKey ? task.taskName() + task.taskKey.toStrep() : task.taskName();
}

std::size_t nameWidth(std::vector<TaskStat const*> const& tasks, std::string const& title,
                      bool showTaskKey) {
  auto const longest =
      std::max_element(tasks.begin(), tasks.end(), [](TaskStat const* a, TaskStat const* b) {
        return a->taskName().size() < b->taskName().size();
      });
  if (longest == tasks.end()) return title.size();
  return std::max(rowName(**longest, showTaskKey).size(), title.size());
}

std::string blanks(std::size_t width, std::string const& text) {
  return std::string(width > text.size() ? width - text.size() : 0, ' ');
}

void renderRow(std::ostream& stream, TaskStat const& task, std::size_t width, bool completed,
               bool showTaskKey) {
  std::string const name = rowName(task, showTaskKey);
  format row(completed ? "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %4u %10s %8s %6s %9s %10s"
                       : "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %10s %8s %6s %9s %10s");
  row % name % blanks(width, name) % task.taskStatusString() % task.taskRunCount %
      seconds(task.taskTotalRunTime) % seconds(task.taskLastSchedulingLatency()) %
      seconds(task.taskSchedulingLatencyHighWaterMark()) % task.taskQuantumViolation200 %
      task.taskQuantumViolation500 %
      static_cast<std::uint64_t>(seconds(task.taskRunTimeHighWaterMark()) * 1000.0);
  if (completed) row % task.taskCompletedCount;
  if (task.taskWorkCountHighWaterMark.isSet()) {
    row % str(format("%lu") % task.taskWorkCountTotal) %
        str(format("%6.1f") % task.taskWorkCountDecayAvg) %
        str(format("%u") % task.taskWorkCountHighWaterMark.value());
  } else {
    row % "-" % "-" % "-";
  }
  if (task.taskWorkPendingHighWaterMark.isSet()) {
    row % str(format("%u") % task.taskWorkPending) %
        str(format("%u") % task.taskWorkPendingHighWaterMark.value());
  } else {
    row % "-" % "-";
  }
  stream << row << "\n";
}

void statsRenderTextTasks(std::ostream& stream, std::vector<TaskStat> const& tasks,
                          std::string const& title, unsigned skipped, bool completed,
                          bool showTaskKey) {
  std::vector<TaskStat const*> const sorted = heaviestFirst(tasks);
  std::size_t const width = nameWidth(sorted, title, showTaskKey);
  format header(completed ? "%s%s %2s %10s %13s %14s %4s %4s %5s %4s %26s %20s"
                          : "%s%s %2s %10s %13s %14s %4s %4s %5s %26s %20s");
  header % title % blanks(width, title) % "SP" % "RunCount" % "TotalSec" % "Last/Max-Delay" %
      "200%" % "500%" % "MaxMs";
  if (completed) header % "Completed";
  header % "Total/DecayA/Max-WorkCount" % "Last/Max-WorkPending";
  stream << header << "\n";
  // The word "Completed" is wider than its column and shifts the headers behind it by 5.
  stream << std::string(width + 107 + (completed ? 5 : 0), '-') << "\n";
  for (TaskStat const* task : sorted)
    renderRow(stream, *task, width, completed, showTaskKey);
  if (skipped != 0) {
    stream << format("Skipped %u task%s with no runs\n") % skipped % (skipped == 1 ? "" : "s")
           << "\n";
  }
}

void statsRenderTextImpl(std::ostream& stream, TaskSchedulerQueueStats const& queueStats,
                         TaskTimeDuration slip, std::vector<TaskStat>* tasks, unsigned skipped,
                         std::vector<TaskStat>* completed, unsigned skippedCompleted,
                         bool showTaskKey) {
  renderPriorities(stream, queueStats);
  stream << format("Maximum scheduler slip %.6f seconds\n") % seconds(slip) << "\n";
  for (LegendLine const& line : legend) {
    if (line.completedOnly && completed == nullptr) continue;
    stream << format("%-17s %s\n") % line.column % line.meaning;
  }
  stream << "\n";
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
