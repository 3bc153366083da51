#include "timeline/SavedTimelines.h"

#include "Failure.h"

namespace Tool {

void SavedTimelines::add(std::string_view text) {
  Json const document = Json::parse(text, nullptr, false);
  if (document.is_discarded()) throw Failure("a document in it is not JSON");
  std::string const kind = textOf(document, "document");
  if (kind == "history") {
    HistoryDocument const history = historyOf(document);
    timelineOf(history.head).add(history);
  } else if (kind == "stalls") {
    timelineOf(headOf(document)).addStalls(document, true);
  }
}

void SavedTimelines::finish() {
  bool events = false;
  for (ProcessTimeline& timeline : timelines_) {
    events = events || timeline.next();
    timeline.finish();
  }
  if (!events) throw Failure("there is no document \"history\" with events in it");
}

ProcessTimeline& SavedTimelines::timelineOf(DocumentHead const& head) {
  for (ProcessTimeline& timeline : timelines_) {
    if (timeline.head().sameProcess(head)) return timeline;
  }
  constexpr std::size_t processesMax = 1000;
  if (timelines_.size() == processesMax) throw Failure("it has more than 1,000 processes");
  return timelines_.emplace_back(writer_, static_cast<int>(timelines_.size()) + 1, head);
}

}  // namespace Tool
