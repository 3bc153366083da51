#pragma once

#include <list>
#include <string_view>

#include "timeline/ProcessTimeline.h"

namespace Tool {

/// Saved documents *history* and *stalls*, of any number of daemons, as a trace file. Other
/// documents are passed over.
class SavedTimelines {
 public:
  explicit SavedTimelines(TraceWriter& writer) : writer_(writer) {}

  /// The next document; a `Failure` for what is no JSON.
  void add(std::string_view text);
  /// Ends the processes; a `Failure` if there was no event at all.
  void finish();

 private:
  ProcessTimeline& timelineOf(DocumentHead const& head);

  TraceWriter& writer_;
  std::list<ProcessTimeline> timelines_;
};

}  // namespace Tool
