// A monitor's document.

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "Brelo/Assert.h"
#include "Brelo/Time.h"
#include "Brelo/TimerWheel.h"
#include "BreloObserve/Monitor.h"
#include "BreloObserve/internal/Document.h"
#include "BreloObserve/internal/MonitorColumns.h"
#include "BreloObserve/internal/RunAccounts.h"

namespace BreloObserve {

namespace {

using Brelo::TaskImpl;
using Brelo::TaskTimePoint;
using Impl::Document;
using Impl::MonitorColumn;
using Impl::MonitorColumns;
using Impl::NameAccount;
using Impl::RunAccounts;
using std::chrono::nanoseconds;

double seconds(nanoseconds length) {
  return static_cast<double>(length.count()) * 1e-9;
}

std::uint64_t count(nanoseconds length) {
  return static_cast<std::uint64_t>(length.count());
}

void writeHistogram(Document& document, std::string_view name, Histogram const& histogram) {
  document.key(name);
  auto& writer = document.writer();
  writer.StartArray();
  for (Histogram::Bucket const& bucket : histogram.buckets()) {
    writer.StartArray();
    writer.Int64(bucket.upper.count());
    writer.Uint64(bucket.count);
    writer.EndArray();
  }
  writer.EndArray();
}

void writeSlip(Document& document, Histogram const& slip, bool histograms) {
  document.key("slip_ns");
  document.writer().StartObject();
  document.member("count", slip.count());
  document.member("mean", slip.mean());
  document.member("p50", count(slip.percentile(0.5)));
  document.member("p90", count(slip.percentile(0.9)));
  document.member("p99", count(slip.percentile(0.99)));
  document.member("p999", count(slip.percentile(0.999)));
  document.member("max", count(slip.max()));
  document.writer().EndObject();
  if (histograms) writeHistogram(document, "slip_histogram_ns", slip);
}

void writeNextTimer(Document& document, Brelo::TaskSchedulerRoot const& root) {
  double const wake = root.timerWheel()->wakeTime();
  if (std::isinf(wake)) {
    document.memberNull("next_timer_in_s");
  } else {
    document.member("next_timer_in_s", std::max(wake - Brelo::time(), 0.0));
  }
}

void writeTask(Document& document, TaskImpl const& task) {
  document.member("group", task.taskScheduler()->schedulerName());
  document.member("name", task.taskStatsName());
}

void writePresentRun(Document& document, RunAccounts const& accounts, TaskTimePoint now) {
  auto const* const run = accounts.root().observedRun();
  if (run == nullptr) return document.memberNull("present_run");
  document.key("present_run");
  document.writer().StartObject();
  writeTask(document, run->task);
  document.member("started_monotonic_ns", std::int64_t{run->start.time_since_epoch().count()});
  document.member("length_s", seconds(nanoseconds(run->task.runTimeUntil(now).count())));
  document.writer().EndObject();
}

void writeLongestQueued(Document& document, TaskImpl const* longest, TaskTimePoint now) {
  if (longest == nullptr) return document.memberNull("longest_queued");
  document.key("longest_queued");
  document.writer().StartObject();
  writeTask(document, *longest);
  document.member("priority", longest->taskPriority().toStrep());
  document.member("queued_s", seconds(now - longest->taskScheduleTime()));
  document.writer().EndObject();
}

/// What is so of the tree now.
struct Tree {
  std::uint64_t tasks = 0;
  std::uint64_t runnable = 0;
  TaskImpl const* longestQueued = nullptr;
};

Tree lookAt(Brelo::TaskSchedulerRoot const& root) {
  Tree tree;
  root.forEachScheduler([&](Brelo::TaskScheduler const& scheduler) {
    tree.tasks += scheduler.registeredTaskCount();
    tree.runnable += scheduler.runnableTaskCount();
    TaskImpl const* const longest = scheduler.longestQueuedTask();
    if (longest != nullptr &&
        (tree.longestQueued == nullptr ||
         longest->taskScheduleTime() < tree.longestQueued->taskScheduleTime())) {
      tree.longestQueued = longest;
    }
  });
  return tree;
}

void writeWindow(Document& document, LoopFigures const& loop) {
  document.key("window");
  document.writer().StartObject();
  document.member("cleared_unix_s", loop.cleared);
  document.member("length_s", seconds(loop.length));
  document.member("cleared_count", loop.clearings);
  document.writer().EndObject();
}

void writeLoop(Document& document, RunAccounts const& accounts, LoopFigures const& loop,
               bool histograms) {
  double const length = seconds(loop.length);
  auto const perSecond = [&](double number) { return length > 0 ? number / length : 0; };
  std::uint64_t runs = 0;
  accounts.forEachUsed([&](NameAccount const& account) {
    if (!account.isGroup) runs += account.run.count();
  });
  Tree const tree = lookAt(accounts.root());
  TaskTimePoint const now = std::chrono::steady_clock::now();
  document.key("loop");
  document.writer().StartObject();
  document.member("running_ratio", perSecond(seconds(loop.running)));
  document.member("polling_ratio", perSecond(seconds(loop.polling)));
  document.member("waiting_ratio", perSecond(seconds(loop.waiting)));
  document.member("running_s", seconds(loop.running));
  document.member("polling_s", seconds(loop.polling));
  document.member("waiting_s", seconds(loop.waiting));
  document.member("thread_cpu_s", seconds(loop.threadCpu));
  document.member("looks", loop.looks);
  document.member("runs", runs);
  document.member("runs_per_s", perSecond(static_cast<double>(runs)));
  document.member("runs_lost", loop.runsLost);
  document.member("waits", loop.waits);
  document.member("tasks", tree.tasks);
  document.member("runnable", tree.runnable);
  writeSlip(document, loop.slip, histograms);
  writeNextTimer(document, accounts.root());
  writePresentRun(document, accounts, now);
  writeLongestQueued(document, tree.longestQueued, now);
  document.writer().EndObject();
}

void writeName(Document& document, NameAccount const& account, double windowSeconds,
               bool histograms) {
  auto& writer = document.writer();
  writer.StartObject();
  for (MonitorColumn const& column : MonitorColumns()) {
    std::visit([&](auto const& value) { document.member(column.name, value); },
               column.value(account, windowSeconds));
  }
  document.member("is_group", account.isGroup);
  if (account.parentGroup.isNull()) {
    document.memberNull("parent_group");
  } else {
    document.member("parent_group", account.parentGroup.string());
  }
  if (histograms) {
    writeHistogram(document, "run_histogram_ns", account.run);
    writeHistogram(document, "wait_histogram_ns", account.wait);
  }
  writer.EndObject();
}

/// Sorted: the largest figure first, or the first text.
std::vector<NameAccount const*> sortedNames(RunAccounts const& accounts,
                                            MonitorRequest const& request, double windowSeconds) {
  MonitorColumn const* const column = MonitorColumns().find(request.sort);
  if (column == nullptr) BRELO_FAIL("Monitor", "no column {}", request.sort);
  std::vector<std::pair<MonitorColumn::Value, NameAccount const*>> keyed;
  accounts.forEachUsed([&](NameAccount const& account) {
    if (!request.group.empty() && account.group.string() != request.group) return;
    keyed.emplace_back(column->value(account, windowSeconds), &account);
  });
  std::stable_sort(keyed.begin(), keyed.end(), [](auto const& a, auto const& b) {
    bool const isText = std::holds_alternative<std::string_view>(a.first);
    return isText ? a.first < b.first : b.first < a.first;
  });
  std::vector<NameAccount const*> sorted;
  for (auto const& [key, account] : keyed)
    sorted.push_back(account);
  return sorted;
}

/// The names until `top` or the time given is reached, and the rest as one sum.
void writeNames(Document& document, RunAccounts const& accounts, MonitorRequest const& request,
                double windowSeconds, TaskTimePoint end) {
  auto const names = sortedNames(accounts, request, windowSeconds);
  std::size_t const top = request.top != 0 ? std::min(request.top, names.size()) : names.size();
  document.key("columns");
  document.writer().StartArray();
  for (MonitorColumn const& column : MonitorColumns())
    document.string(column.name);
  document.writer().EndArray();
  document.key("names");
  document.writer().StartArray();
  std::size_t shown = 0;
  while (shown < top && (shown == 0 || std::chrono::steady_clock::now() < end)) {
    document.newLine();
    writeName(document, *names[shown], windowSeconds, request.histograms);
    ++shown;
  }
  document.writer().EndArray();
  document.newLine();
  document.member("names_total", std::uint64_t{names.size()});
  document.member("names_shown", std::uint64_t{shown});
  if (shown == names.size()) return document.memberNull("rest");
  NameAccount rest = accounts.sumAccount("(rest)");
  for (std::size_t at = shown; at < names.size(); ++at)
    rest.merge(*names[at]);
  document.key("rest");
  writeName(document, rest, windowSeconds, request.histograms);
}

}  // namespace

std::vector<std::string_view> Monitor::columns() {
  std::vector<std::string_view> names;
  for (MonitorColumn const& column : MonitorColumns())
    names.push_back(column.name);
  return names;
}

bool Monitor::isColumn(std::string_view name) {
  return MonitorColumns().find(name) != nullptr;
}

std::string Monitor::document(MonitorRequest const& request) const {
  Brelo::TaskSchedulerRoot const& root = accounts_->root();
  root.sanityCheckCurrentRunningThread();
  TaskTimePoint const start = std::chrono::steady_clock::now();
  nanoseconds const quantum(root.defaultTaskQuantum().count());
  std::uint64_t const counted = accounts_->countLive(start + quantum / 2);
  LoopFigures const loop = this->loop();
  Document document("monitor", 1, root);
  writeWindow(document, loop);
  document.newLine();
  writeLoop(document, *accounts_, loop, request.histograms);
  document.newLine();
  writeNames(document, *accounts_, request, seconds(loop.length), start + quantum / 4 * 3);
  document.member("tasks_counted", counted);
  return document.finish();
}

}  // namespace BreloObserve
