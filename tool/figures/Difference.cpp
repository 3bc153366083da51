#include <algorithm>
#include <map>
#include <string_view>
#include <tuple>

#include "figures/Figures.h"

namespace Tool {

namespace {

bool hasShrunk(Durations const& now, Durations const& before) {
  return now.count < before.count || now.seconds < before.seconds * 0.999999;  // which is rounded
}

bool hasShrunk(NameFigures const& now, NameFigures const& before) {
  return hasShrunk(now.run, before.run) || now.wait.count < before.wait.count ||
         now.work < before.work || now.violations < before.violations;
}

Durations difference(Durations const& now, Durations const& before) {
  Durations result = now;
  result.count -= before.count;
  result.seconds = std::max(0.0, now.seconds - before.seconds);
  if (now.histogram.buckets.empty()) return result;
  result.histogram = difference(now.histogram, before.histogram);
  result.p50 = result.histogram.percentile(0.5);
  result.p99 = result.histogram.percentile(0.99);
  if (now.max <= before.max) result.max = result.histogram.percentile(1);
  return result;
}

NameFigures difference(NameFigures const& now, NameFigures const& before) {
  NameFigures result = now;
  result.run = difference(now.run, before.run);
  result.wait = difference(now.wait, before.wait);
  result.work -= before.work;
  result.violations -= before.violations;
  return result;
}

LoopFigures difference(LoopFigures const& now, LoopFigures const& before) {
  LoopFigures result = now;
  result.runningSeconds = std::max(0.0, now.runningSeconds - before.runningSeconds);
  result.pollingSeconds = std::max(0.0, now.pollingSeconds - before.pollingSeconds);
  result.waitingSeconds = std::max(0.0, now.waitingSeconds - before.waitingSeconds);
  result.cpuSeconds = std::max(0.0, now.cpuSeconds - before.cpuSeconds);
  result.looks = std::max(0.0, now.looks - before.looks);
  result.runs = std::max(0.0, now.runs - before.runs);
  result.waits = std::max(0.0, now.waits - before.waits);
  if (now.slip.count >= before.slip.count) result.slip = difference(now.slip, before.slip);
  return result;
}

}  // namespace

Continuity continuity(Figures const& now, Figures const& before) {
  if (!now.head.sameProcess(before.head)) return Continuity::restarted;
  bool sameWindow =
      now.clearedUnix == before.clearedUnix && now.clearedCount == before.clearedCount;
  return sameWindow ? Continuity::same : Continuity::cleared;
}

Figures difference(Figures const& now, Figures const& before) {
  using Key = std::tuple<std::string_view, std::string_view, std::string_view>;
  std::map<Key, NameFigures const*> old;
  for (auto const& name : before.names)
    old[{name.group, name.name, name.priority}] = &name;
  Figures result = now;
  result.seconds = std::max(0.0, now.head.timeUnixSeconds - before.head.timeUnixSeconds);
  result.loop = difference(now.loop, before.loop);
  for (auto& name : result.names) {
    auto found = old.find({name.group, name.name, name.priority});
    if (found != old.end() && !hasShrunk(name, *found->second)) {
      name = difference(name, *found->second);
    }
  }
  return result;
}

}  // namespace Tool
