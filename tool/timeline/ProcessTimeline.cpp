#include "timeline/ProcessTimeline.h"

#include <algorithm>

#include "Text.h"

namespace Tool {

namespace {

constexpr std::size_t runsMax = 200;
constexpr std::size_t requestsMax = 100'000;
constexpr std::size_t tracksMax = 20'000;
constexpr std::size_t nameMax = 200;
constexpr char const* othersSubject = "- (others)";

enum class Kind { request, takenBack, runStart, runEnd, readiness, timer, task, loop, passedOver };

Kind kindOf(std::string const& type) {
  static std::unordered_map<std::string, Kind> const kinds = {
      {"schedule", Kind::request},
      {"unschedule", Kind::takenBack},
      {"run start", Kind::runStart},
      {"run end", Kind::runEnd},
      {"fdReadable", Kind::readiness},
      {"fdWritable", Kind::readiness},
      {"timerStart", Kind::timer},
      {"timerStop", Kind::timer},
      {"busy", Kind::passedOver},
      {"idle", Kind::passedOver},
      {"schedulerIdle", Kind::passedOver},
      {"schedulerRunnable", Kind::passedOver},
      {"schedulerSuspended", Kind::loop},
      {"schedulerUnsuspended", Kind::loop},
      {"schedulerRunIgnoredWhileSuspended", Kind::loop},
      {"schedulerVirtualTimeOn", Kind::loop},
      {"schedulerVirtualTimeOff", Kind::loop},
      {"schedulerTestYieldRatioOn", Kind::loop},
      {"schedulerTestYieldRatioOff", Kind::loop},
  };
  auto const kind = kinds.find(type);
  return kind == kinds.end() ? Kind::task : kind->second;
}

char const* categoryOf(Kind kind) {
  switch (kind) {
    case Kind::readiness:
      return "readiness";
    case Kind::timer:
      return "timer";
    case Kind::loop:
      return "scheduler";
    default:
      return "task";
  }
}

// A subject is the priority's letter, a blank and the task's name; the task that stands for a group
// is called after it.
constexpr std::string_view groupPrefix = "TaskGroup;";

bool hasPriority(std::string_view subject) {
  return subject.size() > 2 && subject[1] == ' ';
}

std::string_view taskName(std::string_view subject) {
  return hasPriority(subject) ? subject.substr(2) : subject;
}

bool isGroup(std::string_view subject) {
  return taskName(subject).substr(0, groupPrefix.size()) == groupPrefix;
}

std::string shownName(std::string_view subject) {
  std::string_view const name = taskName(subject);
  return isGroup(subject) ? "group " + std::string(name.substr(groupPrefix.size()))
                          : std::string(name);
}

}  // namespace

ProcessTimeline::ProcessTimeline(TraceWriter& writer, int process, DocumentHead const& head)
    : writer_(writer), process_(process), head_(head) {
  writer_.nameProcess(process, head.process + " (pid " + std::to_string(head.pid) + ")");
  writer_.nameTrack(loop(), "loop", 1);
}

std::uint64_t ProcessTimeline::add(HistoryDocument const& history) {
  if (history.events.empty()) return 0;
  std::uint64_t number = history.first;
  std::uint64_t const lost = next_ && number > *next_ ? number - *next_ : 0;
  if (lost > 0) gap("lost " + std::to_string(lost) + " events");
  for (HistoryEvent const& event : history.events) {
    if (!next_ || number >= *next_) add(event);
    ++number;
  }
  next_ = std::max(next_.value_or(0), number);
  return lost;
}

void ProcessTimeline::add(HistoryEvent const& event) {
  nowNs_ = std::max(nowNs_, event.timeNs);
  if (!firstNs_) firstNs_ = nowNs_;
  std::string const subject = event.subject.substr(0, nameMax);
  Kind const kind = kindOf(event.type);
  closeRequestSlice(nowNs_);
  switch (kind) {
    case Kind::request:
      request(subject);
      break;
    case Kind::takenBack:
      takeRequest(subject);
      break;
    case Kind::runStart:
      runStarts(subject);
      break;
    case Kind::runEnd:
      runEnds(subject);
      break;
    case Kind::passedOver:
      // With nothing left to run in the root, no run is open: one that an exception has left has no
      // end among the events.
      if (event.type == "schedulerIdle" && subject == head_.process) closeRuns("left");
      break;
    default:
      writer_.instant(kind == Kind::loop ? loop() : trackOf(trackFor(subject)), nowNs_,
                      event.type.substr(0, nameMax), categoryOf(kind), {});
  }
  countRunnable();
}

void ProcessTimeline::gap(std::string const& reason) {
  closeRuns("lost");
  requests_.clear();
  requestCount_ = 0;
  countRunnable();
  writer_.instant(loop(), nowNs_, reason, "lost", {});
}

void ProcessTimeline::finish() {
  closeRuns("open");
  std::vector<std::size_t> order(tracks_.size());
  auto const placeOf = [&](std::size_t index) {
    TaskTrack const& track = tracks_[index];
    return std::make_pair(track.group.value_or(""), taskName(track.subject));
  };
  for (std::size_t i = 0; i < order.size(); ++i)
    order[i] = i;
  std::sort(order.begin(), order.end(),
            [&](std::size_t a, std::size_t b) { return placeOf(a) < placeOf(b); });
  int position = 3;
  for (std::size_t const index : order) {
    TaskTrack const& track = tracks_[index];
    std::string name = track.group.value_or("") + shownName(track.subject);
    if (hasPriority(track.subject)) name += std::string(" (") + track.subject[0] + ")";
    writer_.nameTrack(trackOf(index), name, position++);
  }
  if (!drawnStalls_.empty()) writer_.nameTrack(stalls(), "stalls", 2);
  tracks_.clear();
}

// Tracks.

std::string ProcessTimeline::presentGroup() const {
  std::string group;
  for (Run const& run : runs_) {
    std::string const& subject = tracks_[run.track].subject;
    if (isGroup(subject)) group.append(taskName(subject).substr(groupPrefix.size())).append(" / ");
  }
  return group;
}

std::size_t ProcessTimeline::addTrack(std::string const& subject,
                                      std::optional<std::string> group) {
  if (tracks_.size() == tracksMax) {
    tracks_.push_back({othersSubject, "", static_cast<int>(tracksMax) + 3});
  } else if (tracks_.size() < tracksMax) {
    tracks_.push_back({subject, std::move(group), static_cast<int>(tracks_.size()) + 3});
  }
  return tracks_.size() - 1;
}

/// Where a task's events outside of its runs belong: it is the latest one of that name.
std::size_t ProcessTimeline::trackFor(std::string const& subject) {
  auto const known = latestTrack_.find(subject);
  if (known != latestTrack_.end()) return known->second;
  std::size_t const track = addTrack(subject, std::nullopt);
  if (track < tracksMax) latestTrack_.emplace(subject, track);
  return track;
}

std::size_t ProcessTimeline::trackForRun(std::string const& subject) {
  auto const key = std::make_pair(presentGroup(), subject);
  auto const known = trackOfRuns_.find(key);
  if (known != trackOfRuns_.end()) return latestTrack_[subject] = known->second;
  auto const latest = latestTrack_.find(subject);
  bool const unplaced = latest != latestTrack_.end() && !tracks_[latest->second].group;
  std::size_t const track = unplaced ? latest->second : addTrack(subject, key.first);
  if (track >= tracksMax) return track;
  tracks_[track].group = key.first;
  trackOfRuns_.emplace(key, track);
  return latestTrack_[subject] = track;
}

// Requests and runs.

void ProcessTimeline::request(std::string const& subject) {
  if (runs_.empty() && !requestSliceSince_) {
    requestSliceSince_ = nowNs_;
    writer_.begin(loop(), nowNs_, "requests");
  }
  if (requestCount_ == requestsMax) return;
  requests_[subject].push_back(nowNs_);
  ++requestCount_;
}

std::optional<std::int64_t> ProcessTimeline::takeRequest(std::string const& subject) {
  auto const queue = requests_.find(subject);
  if (queue == requests_.end()) return std::nullopt;
  std::int64_t const time = queue->second.front();
  queue->second.pop_front();
  --requestCount_;
  if (queue->second.empty()) requests_.erase(queue);
  return time;
}

void ProcessTimeline::runStarts(std::string const& subject) {
  if (runs_.size() == runsMax) closeRuns("lost");
  if (requestSliceSince_) {
    writer_.end(loop(), nowNs_);
    requestSliceSince_.reset();
  }
  writer_.begin(loop(), nowNs_, shownName(subject));
  std::size_t const track = trackForRun(subject);
  runs_.push_back({track, nowNs_, takeRequest(subject)});
}

/// Runs inside of it that have no end were left by an exception.
void ProcessTimeline::runEnds(std::string const& subject) {
  auto const isIt = [&](Run const& run) {
    return run.track == tracksMax || tracks_[run.track].subject == subject;
  };
  auto const found = std::find_if(runs_.rbegin(), runs_.rend(), isIt);
  if (found == runs_.rend()) return;  // it started before the first event
  for (auto inside = found - runs_.rbegin(); inside > 0; --inside)
    closeRun("left");
  closeRun(nullptr);
}

void ProcessTimeline::closeRun(char const* remark) {
  Run const run = runs_.back();
  runs_.pop_back();
  writer_.end(loop(), nowNs_);
  TraceWriter::Arguments arguments;
  Track const track = trackOf(run.track);
  if (run.requestNs) {
    auto const waited = static_cast<double>(run.startNs - *run.requestNs);
    arguments.number("waited_us", waited / 1e3);
  }
  if (remark != nullptr) arguments.text("end", remark);
  writer_.slice(track, run.startNs, nowNs_, shownName(tracks_[run.track].subject), "run",
                arguments);
  if (run.requestNs) writer_.flow(loop(), *run.requestNs, track, run.startNs);
}

void ProcessTimeline::closeRuns(char const* remark) {
  if (requestSliceSince_) {
    writer_.end(loop(), nowNs_);
    requestSliceSince_.reset();
  }
  while (!runs_.empty())
    closeRun(remark);
}

/// What asks outside of runs has no length of its own; it is shown as a microsecond if that is
/// free.
void ProcessTimeline::closeRequestSlice(std::int64_t atMostNs) {
  constexpr std::int64_t shownNs = 1000;
  if (!requestSliceSince_ || atMostNs <= *requestSliceSince_ + shownNs) return;
  writer_.end(loop(), *requestSliceSince_ + shownNs);
  requestSliceSince_.reset();
}

void ProcessTimeline::countRunnable() {
  if (shownRunnable_ == requestCount_) return;
  shownRunnable_ = requestCount_;
  writer_.counter(process_, nowNs_, "runnable tasks", requestCount_);
}

// Stalls.

void ProcessTimeline::addStalls(Json const& document, bool last) {
  std::map<std::int64_t, Json const*> byStart;
  for (Json const& stall : arrayOf(document, "stalls")) {
    std::int64_t const start = integerOf(stall, "last_started_monotonic_ns");
    bool const early = !firstNs_ || start < *firstNs_;
    if (early || drawnStalls_.count(start) != 0 || (flagOf(stall, "lasting") && !last)) continue;
    byStart.emplace(start, &stall);
  }
  constexpr std::size_t drawnMax = 10'000;
  for (auto const& [start, stall] : byStart) {
    addStall(*stall, start);
    drawnStalls_.insert(start);
    if (drawnStalls_.size() > drawnMax) drawnStalls_.erase(drawnStalls_.begin());
  }
}

void ProcessTimeline::addStall(Json const& stall, std::int64_t startNs) {
  constexpr double secondsMax = 1e6;
  double const seconds = std::clamp(numberOf(stall, "last_s"), 0.0, secondsMax);
  std::int64_t const end = startNs + static_cast<std::int64_t>(seconds * 1e9);
  TraceWriter::Arguments arguments;
  arguments.text("group", textOf(stall, "group").substr(0, nameMax));
  arguments.number("cpu_s", numberOf(stall, "last_cpu_s"));
  arguments.count("same_stack_count",
                  static_cast<std::uint64_t>(std::max<std::int64_t>(integerOf(stall, "count"), 0)));
  constexpr std::size_t framesMax = 100;
  std::size_t frames = 0;
  for (Json const& frame : arrayOf(stall, "frames")) {
    if (++frames > framesMax) break;
    arguments.text("frame " + std::to_string(frames),
                   textOf(frame, "function", "?").substr(0, 4 * nameMax) + " in " +
                       textOf(frame, "module", "?").substr(0, 4 * nameMax) + " at " +
                       textOf(frame, "offset", "?").substr(0, nameMax));
  }
  std::string const name = "stall in " + textOf(stall, "name", "?").substr(0, nameMax);
  if (startNs >= stallsUntilNs_) {
    writer_.slice(stalls(), startNs, end, name, "stall", arguments);
    stallsUntilNs_ = end;
  } else {  // inside of another one, which it need not nest in
    writer_.instant(stalls(), startNs, name, "stall", arguments);
  }
}

}  // namespace Tool
