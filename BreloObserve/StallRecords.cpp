#include "BreloObserve/internal/StallRecords.h"

#include <fmt/format.h>

#include <algorithm>

#include "Brelo/Time.h"
#include "BreloObserve/internal/StallText.h"

namespace BreloObserve::Impl {

namespace {

double seconds(std::int64_t nanoseconds) {
  return static_cast<double>(nanoseconds) * 1e-9;
}

/// A function that loops is the same wherever it is met.
bool sameFunctions(TakenStack const& a, TakenStack const& b) {
  auto const sameAt = [&](std::size_t i) {
    return a.functions[i] == b.functions[i] &&
           (a.functions[i] != 0 || a.addresses[i] == b.addresses[i]);
  };
  if (a.count != b.count) return false;
  for (int i = 0; i < a.count; ++i) {
    if (!sameAt(static_cast<std::size_t>(i))) return false;
  }
  return true;
}

}  // namespace

StallRecords::Entry& StallRecords::entryOf(StallCatch const& found) {
  auto const known = std::find_if(entries_.begin(), entries_.end(), [&](Entry const& entry) {
    return sameFunctions(entry.stack, found.stack) && entry.name == found.name.data() &&
           entry.group == found.group.data();
  });
  if (known != entries_.end()) {
    std::rotate(entries_.begin(), known, known + 1);
  } else {
    Entry entry;
    entry.group = found.group.data();
    entry.name = found.name.data();
    if (entries_.size() == stacksMax_) entries_.pop_back();
    entries_.insert(entries_.begin(), std::move(entry));
  }
  return entries_.front();
}

bool StallRecords::add(CaughtRun const& run) {
  Entry& entry = entryOf(run.found);
  ++caught_;
  bool const isNew = entry.count++ == 0;
  entry.stack = run.found.stack;
  entry.lastStarted = run.found.started;
  entry.lastTime = Brelo::timeAtMonotonic(run.found.started);
  if (isNew) entry.firstTime = entry.lastTime;
  entry.last = run.until - run.found.started;
  entry.longest = std::max(entry.longest, entry.last);
  entry.lastCpu = run.cpu;
  entry.lasting = run.lasting;
  if (!isNew) return false;
  entry.untold = mayTell(run.until);
  return entry.untold;
}

bool StallRecords::mayTell(std::int64_t now) {
  constexpr std::int64_t minute = 60'000'000'000;
  if (toldInMinute_ == 0 || now - minuteStarted_ >= minute) {
    minuteStarted_ = now;
    toldInMinute_ = 0;
  }
  if (toldInMinute_ == reportsPerMinuteMax_) {
    ++suppressed_;
    return false;
  }
  ++toldInMinute_;
  return true;
}

bool StallRecords::takeUntold(Stall& stall) {
  auto const entry =
      std::find_if(entries_.rbegin(), entries_.rend(), [](Entry const& e) { return e.untold; });
  if (entry == entries_.rend()) return false;
  stall = {entry->group,
           entry->name,
           std::chrono::steady_clock::time_point(std::chrono::nanoseconds(entry->lastStarted)),
           std::chrono::nanoseconds(entry->last),
           std::chrono::nanoseconds(entry->lastCpu),
           framesOf(entry->stack)};
  entry->untold = false;
  return true;
}

void StallRecords::write(Document& document, Entry const& entry) {
  document.newLine();
  auto& writer = document.writer();
  writer.StartObject();
  document.member("group", entry.group);
  document.member("name", entry.name);
  document.member("count", entry.count);
  document.member("lasting", entry.lasting);
  document.member("first_unix_s", entry.firstTime);
  document.member("last_unix_s", entry.lastTime);
  document.member("last_started_monotonic_ns", entry.lastStarted);
  document.member("longest_s", seconds(entry.longest));
  document.member("last_s", seconds(entry.last));
  document.member("last_cpu_s", seconds(entry.lastCpu));
  document.key("frames");
  writer.StartArray();
  for (StallFrame const& frame : framesOf(entry.stack)) {
    writer.StartObject();
    document.member("module", frame.module);
    document.member("offset", fmt::format("{:#x}", frame.offset));
    document.member("function", frame.function);
    document.member("address", fmt::format("{:#x}", frame.address));
    writer.EndObject();
  }
  writer.EndArray();
  writer.EndObject();
}

void StallRecords::write(Document& document) const {
  document.member("caught", caught_);
  document.member("suppressed", suppressed_);
  document.key("stalls");
  document.writer().StartArray();
  for (Entry const& entry : entries_)
    write(document, entry);
  document.writer().EndArray();
}

}  // namespace BreloObserve::Impl
