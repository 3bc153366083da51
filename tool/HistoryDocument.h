#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Documents.h"

namespace Tool {

/// One event of a daemon's ring (doc/observe/protocol.md).
struct HistoryEvent {
  std::int64_t timeNs;  ///< on CLOCK_MONOTONIC, not before the event in front of it
  std::string type;     ///< "run start", ...
  std::string
      subject;  ///< the priority's letter, a blank and the task's name; or a scheduler's name
};

/// A document *history*.
struct HistoryDocument {
  DocumentHead head;
  std::uint64_t capacity = 0;
  std::uint64_t recorded = 0;  ///< the number of the newest event in the ring
  std::uint64_t first = 0;     ///< the number of the first event here
  std::vector<HistoryEvent> events;

  /// The number of the event that comes after those here.
  std::uint64_t next() const { return first + events.size(); }
};

/// From the text of an answer or from a document that has been read; else a `Failure`. Events that
/// are none are left out at the end, so that numbers fit; times are put in order.
/// @{
HistoryDocument readHistory(std::string_view text);
HistoryDocument historyOf(Json const& document);
/// @}

}  // namespace Tool
