#include "metrics/Exposition.h"

#include <algorithm>
#include <cstdint>

namespace Tool {

namespace {

using prometheus::MetricType;

std::uint64_t whole(double count) {
  return static_cast<std::uint64_t>(std::clamp(count, 0.0, 9e18));
}

}  // namespace

void Exposition::addUp(std::string const& daemon, bool up) {
  gauge("brelo_up", "Whether the daemon has answered", {{"daemon", daemon}}, up ? 1 : 0);
}

void Exposition::addTotals(std::string const& daemon, Totals const& totals) {
  Labels const labels{{"daemon", daemon}};
  DocumentHead const& head = totals.latest().head;
  gauge("brelo_build_info", "The process's name and its library's version, always 1",
        {{"daemon", daemon}, {"process", head.process}, {"library", head.library}}, 1);
  gauge("brelo_start_time_seconds", "When the process started, since 1970", labels,
        head.startedUnixSeconds);
  counter("brelo_clears_total", "How often its figures were seen to have been cleared", labels,
          totals.clears());
  addLoop(labels, totals);
  for (auto const& [key, name] : totals.names())
    addName(labels, key, name);
}

void Exposition::addStalls(std::string const& daemon, double caught, double suppressed) {
  counter("brelo_stalls_total", "Runs that held the loop beyond the limit", {{"daemon", daemon}},
          caught);
  counter("brelo_stalls_suppressed_total", "Stalls beyond so many a minute, not recorded",
          {{"daemon", daemon}}, suppressed);
}

std::vector<prometheus::MetricFamily> Exposition::take() {
  std::vector<prometheus::MetricFamily> result;
  for (auto& [name, family] : families_)
    result.push_back(std::move(family));
  return result;
}

prometheus::ClientMetric& Exposition::add(char const* name, char const* help, MetricType type,
                                          Labels const& labels) {
  prometheus::MetricFamily& family = families_[name];
  family.name = name;
  family.help = help;
  family.type = type;
  family.metric.emplace_back();
  family.metric.back().label = labels;
  return family.metric.back();
}

void Exposition::counter(char const* name, char const* help, Labels const& labels, double value) {
  add(name, help, MetricType::Counter, labels).counter.value = value;
}

void Exposition::gauge(char const* name, char const* help, Labels const& labels, double value) {
  add(name, help, MetricType::Gauge, labels).gauge.value = value;
}

void Exposition::histogram(char const* name, char const* help, Labels const& labels,
                           CoarseHistogram const& value) {
  auto& histogram = add(name, help, MetricType::Histogram, labels).histogram;
  double count = 0;
  for (std::size_t i = 0; i < CoarseHistogram::bounds.size(); ++i) {
    count += value.count(i);
    histogram.bucket.push_back({whole(count), CoarseHistogram::bounds[i]});
  }
  histogram.sample_count = whole(value.countAll());
  histogram.sample_sum = value.seconds();
}

void Exposition::addLoop(Labels const& daemon, Totals const& totals) {
  LoopFigures const& loop = totals.loop();
  Figures const& latest = totals.latest();
  auto const state = [&](char const* name, double seconds) {
    Labels labels = daemon;
    labels.push_back({"state", name});
    counter("brelo_loop_seconds_total", "The loop's time by what it did", labels, seconds);
  };
  state("running", loop.runningSeconds);
  state("polling", loop.pollingSeconds);
  state("waiting", loop.waitingSeconds);
  counter("brelo_loop_cpu_seconds_total", "CPU time of the loop's thread", daemon, loop.cpuSeconds);
  counter("brelo_loop_runs_total", "Runs of tasks", daemon, loop.runs);
  counter("brelo_loop_looks_total", "Looks for a task to run", daemon, loop.looks);
  counter("brelo_loop_waits_total", "Waits of the loop", daemon, loop.waits);
  histogram("brelo_loop_slip_seconds", "How late the loop looked for a task", daemon,
            totals.slip());
  gauge("brelo_tasks", "Live tasks", daemon, latest.loop.tasks);
  gauge("brelo_tasks_queued", "Live tasks that are queued", daemon, latest.loop.runnable);
  gauge("brelo_longest_queued_seconds", "How long the task that waits longest has been queued",
        daemon, latest.longestQueued ? latest.longestQueued->seconds : 0);
}

void Exposition::addName(Labels const& daemon, Totals::Key const& key, NameTotals const& totals) {
  Labels labels = daemon;
  labels.push_back({"group", key.group});
  labels.push_back({"name", key.name});
  labels.push_back({"priority", key.priority});
  if (key.isGroup) {
    histogram("brelo_group_run_seconds", "Slices of a group, with the runs inside", labels,
              totals.run);
    histogram("brelo_group_wait_seconds", "From the queue to the slice", labels, totals.wait);
    counter("brelo_group_violations_total", "Slices of two quanta or more", labels,
            totals.violations);
    return;
  }
  histogram("brelo_task_run_seconds", "Runs of the tasks of a name", labels, totals.run);
  histogram("brelo_task_wait_seconds", "From the queue to the run", labels, totals.wait);
  counter("brelo_task_work_total", "Work units that the tasks have reported", labels, totals.work);
  counter("brelo_task_violations_total", "Runs of two quanta or more", labels, totals.violations);
  gauge("brelo_task_live", "Live tasks of a name", labels, totals.tasks);
  gauge("brelo_task_queued", "Of these, queued ones", labels, totals.runnable);
  gauge("brelo_task_pending_work", "Work that the tasks last said is pending", labels,
        totals.pending);
}

}  // namespace Tool
