#include "HistoryDocument.h"

#include <algorithm>

namespace Tool {

namespace {

/// No number and no time is near to where sums overflow.
constexpr std::int64_t largest = std::int64_t{1} << 61;

std::uint64_t countOf(Json const& document, std::string_view name) {
  return static_cast<std::uint64_t>(
      std::clamp(integerOf(document, name), std::int64_t{0}, largest));
}

bool isEvent(Json const& event) {
  return event.is_array() && event.size() == 3 && event[0].is_number() && event[1].is_string() &&
         event[2].is_string();
}

}  // namespace

HistoryDocument readHistory(std::string_view text) {
  return historyOf(readDocument(text, "history"));
}

HistoryDocument historyOf(Json const& document) {
  HistoryDocument history;
  history.head = headOf(document);
  history.capacity = countOf(document, "capacity");
  history.recorded = countOf(document, "recorded");
  history.first = std::max<std::uint64_t>(countOf(document, "first"), 1);
  Json const& events = arrayOf(document, "events");
  history.events.reserve(events.size());
  std::int64_t time = 0;
  for (Json const& event : events) {
    if (!isEvent(event)) break;
    time = std::clamp(asInteger(event[0]), time, largest);
    history.events.push_back({time, asText(event[1]), asText(event[2])});
  }
  return history;
}

}  // namespace Tool
