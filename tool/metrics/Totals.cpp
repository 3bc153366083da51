#include "metrics/Totals.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace Tool {

namespace {

Totals::Key keyOf(NameFigures const& name) {
  return {name.isGroup, name.group, name.isGroup ? name.content() : name.name, name.priority};
}

}  // namespace

void CoarseHistogram::add(Durations const& durations) {
  for (auto const& bucket : durations.histogram.buckets) {
    auto const bound = std::lower_bound(bounds.begin(), bounds.end(), bucket.below / 1e9);
    counts_[static_cast<std::size_t>(bound - bounds.begin())] += bucket.count;
  }
  seconds_ += durations.seconds;
}

double CoarseHistogram::countAll() const {
  return std::accumulate(counts_.begin(), counts_.end(), 0.0);
}

void Totals::add(Figures figures) {
  auto const how = latest_ ? continuity(figures, *latest_) : Continuity::restarted;
  if (how == Continuity::restarted) *this = Totals();
  if (how == Continuity::cleared) ++clears_;
  Figures const since = how == Continuity::same ? difference(figures, *latest_) : figures;
  loop_.runningSeconds += since.loop.runningSeconds;
  loop_.pollingSeconds += since.loop.pollingSeconds;
  loop_.waitingSeconds += since.loop.waitingSeconds;
  loop_.cpuSeconds += since.loop.cpuSeconds;
  loop_.looks += since.loop.looks;
  loop_.runs += since.loop.runs;
  loop_.waits += since.loop.waits;
  slip_.add(since.loop.slip);
  std::map<Key, NameTotals> names;
  for (auto const& name : since.names) {
    Key const key = keyOf(name);
    // Of two lines of one name, which no daemon should send, both count.
    auto const [entry, isNew] = names.try_emplace(key);
    NameTotals& totals = entry->second;
    auto const known = names_.find(key);
    if (isNew && known != names_.end()) totals = known->second;
    if (isNew) totals.tasks = totals.runnable = totals.pending = 0;
    totals.run.add(name.run);
    totals.wait.add(name.wait);
    totals.work += name.work;
    totals.violations += name.violations;
    totals.tasks += name.tasks;
    totals.runnable += name.runnable;
    totals.pending += name.pending;
  }
  names_ = std::move(names);
  latest_ = std::move(figures);
}

}  // namespace Tool
