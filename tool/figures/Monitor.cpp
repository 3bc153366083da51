#include <algorithm>

#include "Documents.h"
#include "Failure.h"
#include "figures/Figures.h"

namespace Tool {

namespace {

/// No figure of a daemon is negative; polling, which is a rest, may come out a little below 0.
double figure(Json const& object, std::string_view name) {
  return std::max(0.0, numberOf(object, name));
}

Histogram histogramOf(Json const& object, std::string_view name) {
  Histogram result;
  double end = 0;
  for (auto const& pair : arrayOf(object, name)) {
    if (!pair.is_array() || pair.size() != 2 || !pair[0].is_number() || !pair[1].is_number()) {
      continue;
    }
    auto const below = pair[0].get<double>();
    auto const count = pair[1].get<double>();
    if (below <= end || count <= 0) continue;
    result.buckets.push_back({below, count});
    end = below;
  }
  return result;
}

NameFigures parseName(Json const& line) {
  NameFigures name;
  name.group = textOf(line, "group");
  name.name = textOf(line, "name");
  name.priority = textOf(line, "priority");
  name.isGroup = flagOf(line, "is_group");
  name.tasks = figure(line, "tasks");
  name.runnable = figure(line, "runnable");
  name.pending = figure(line, "pending");
  name.work = figure(line, "work");
  name.violations = figure(line, "violations_200") + figure(line, "violations_500");
  name.run.count = figure(line, "runs");
  name.run.seconds = figure(line, "run_s");
  name.run.p50 = figure(line, "run_p50_ns");
  name.run.p99 = figure(line, "run_p99_ns");
  name.run.max = figure(line, "run_max_ns");
  name.run.histogram = histogramOf(line, "run_histogram_ns");
  name.wait.p50 = figure(line, "wait_p50_ns");
  name.wait.p99 = figure(line, "wait_p99_ns");
  name.wait.max = figure(line, "wait_max_ns");
  name.wait.histogram = histogramOf(line, "wait_histogram_ns");
  // Runs that were never queued have not waited; the histogram knows how many have.
  bool const counted = memberOf(line, "wait_histogram_ns").is_array();
  name.wait.count = counted ? name.wait.histogram.count() : name.run.count;
  name.wait.seconds = figure(line, "wait_mean_ns") * name.wait.count / 1e9;
  return name;
}

LoopFigures parseLoop(Json const& json) {
  LoopFigures loop;
  loop.runningSeconds = figure(json, "running_s");
  loop.pollingSeconds = figure(json, "polling_s");
  loop.waitingSeconds = figure(json, "waiting_s");
  loop.cpuSeconds = figure(json, "thread_cpu_s");
  loop.looks = figure(json, "looks");
  loop.runs = figure(json, "runs");
  loop.waits = figure(json, "waits");
  loop.tasks = figure(json, "tasks");
  loop.runnable = figure(json, "runnable");
  Json const& slip = memberOf(json, "slip_ns");
  loop.slip.count = figure(slip, "count");
  loop.slip.seconds = figure(slip, "mean") * loop.slip.count / 1e9;
  loop.slip.p50 = figure(slip, "p50");
  loop.slip.p99 = figure(slip, "p99");
  loop.slip.max = figure(slip, "max");
  loop.slip.histogram = histogramOf(json, "slip_histogram_ns");
  return loop;
}

}  // namespace

std::string NameFigures::content() const {
  constexpr std::string_view prefix = "TaskGroup;";
  if (!isGroup) return {};
  bool const prefixed = name.compare(0, prefix.size(), prefix) == 0;
  return prefixed ? name.substr(prefix.size()) : name;
}

Figures parseMonitor(std::string_view text) {
  Json const document = readDocument(text, "monitor");
  Json const& loop = memberOf(document, "loop");
  Json const& window = memberOf(document, "window");
  if (!loop.is_object() || !window.is_object() || !memberOf(document, "names").is_array()) {
    throw Failure("the document \"monitor\" lacks its window, its loop or its names");
  }
  Figures figures;
  figures.head = headOf(document);
  figures.clearedUnix = figure(window, "cleared_unix_s");
  figures.clearedCount = figure(window, "cleared_count");
  figures.seconds = figure(window, "length_s");
  figures.loop = parseLoop(loop);
  Json const& timer = memberOf(loop, "next_timer_in_s");
  if (timer.is_number()) figures.nextTimerSeconds = figure(loop, "next_timer_in_s");
  Json const& queued = memberOf(loop, "longest_queued");
  if (queued.is_object()) {
    figures.longestQueued = {textOf(queued, "group"), textOf(queued, "name"),
                             textOf(queued, "priority"), figure(queued, "queued_s")};
  }
  for (auto const& line : arrayOf(document, "names"))
    figures.names.push_back(parseName(line));
  figures.tasksMissing =
      numberOf(document, "tasks_counted", figures.loop.tasks) < figures.loop.tasks;
  return figures;
}

}  // namespace Tool
