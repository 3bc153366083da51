#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "HistoryDocument.h"
#include "timeline/TraceWriter.h"

namespace Tool {

/// The events of one daemon's ring as tracks of a trace file.
///
/// The track "loop" has every run as a slice, a group's slice around the runs of its tasks: who
/// held the loop, and when. Each task and group has a track of its own beside it, with its runs,
/// its readiness, timers and suspensions. An arrow leads from where a run was asked for, in the
/// loop, to the run. Events name tasks by priority and name alone: tasks that share both in one
/// group share a track, and of their requests the earliest is taken to run first.
///
/// What is kept is bounded, whatever the events say: open runs, requests that have not run, and one
/// small entry for each track.
class ProcessTimeline {
 public:
  ProcessTimeline(TraceWriter& writer, int process, DocumentHead const& head);

  /// The events of a document, but for those that have been there before; those that are missing
  /// between are a gap, and how many they are is returned. A time before that of the event in front
  /// of it is taken to be that.
  std::uint64_t add(HistoryDocument const& history);
  /// The number of the next event; null for the ring's oldest.
  std::optional<std::uint64_t> next() const { return next_; }
  /// Something is missing before the next event: open slices end here.
  void gap(std::string const& reason);
  /// The stalls of a document that have not been drawn yet; those before the first event are left
  /// out. One that still lasts is drawn from the last document alone.
  void addStalls(Json const& document, bool last);
  /// Ends the open slices and names the tracks.
  void finish();

  DocumentHead const& head() const { return head_; }

 private:
  using Track = TraceWriter::Track;
  struct TaskTrack {
    std::string subject;
    std::optional<std::string> group;  // null until it has run
    int thread;
  };
  struct Run {
    std::size_t track;
    std::int64_t startNs;
    std::optional<std::int64_t> requestNs;
  };

  Track loop() const { return {process_, 1}; }
  Track stalls() const { return {process_, 2}; }
  Track trackOf(std::size_t index) const { return {process_, tracks_[index].thread}; }
  std::size_t trackFor(std::string const& subject);
  std::size_t trackForRun(std::string const& subject);
  std::size_t addTrack(std::string const& subject, std::optional<std::string> group);
  std::string presentGroup() const;

  void add(HistoryEvent const& event);
  void request(std::string const& subject);
  std::optional<std::int64_t> takeRequest(std::string const& subject);
  void runStarts(std::string const& subject);
  void runEnds(std::string const& subject);
  void closeRun(char const* remark);
  void closeRuns(char const* remark);
  void closeRequestSlice(std::int64_t atMostNs);
  void countRunnable();
  void addStall(Json const& stall, std::int64_t startNs);

  TraceWriter& writer_;
  int process_;
  DocumentHead head_;
  std::optional<std::uint64_t> next_;
  std::optional<std::int64_t> firstNs_;
  std::int64_t nowNs_ = 0;
  std::vector<TaskTrack> tracks_;
  std::map<std::pair<std::string, std::string>, std::size_t> trackOfRuns_;  // by group, subject
  std::unordered_map<std::string, std::size_t> latestTrack_;                // by subject
  std::vector<Run> runs_;                                                   // innermost last
  std::unordered_map<std::string, std::deque<std::int64_t>> requests_;      // by subject
  std::size_t requestCount_ = 0;
  std::optional<std::uint64_t> shownRunnable_;
  std::optional<std::int64_t> requestSliceSince_;  // the loop, outside of runs
  std::set<std::int64_t> drawnStalls_;             // by their starts
  std::int64_t stallsUntilNs_ = 0;
};

}  // namespace Tool
