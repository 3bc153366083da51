#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "BreloObserve/StallDetector.h"
#include "BreloObserve/internal/Document.h"
#include "BreloObserve/internal/StallSlot.h"

namespace BreloObserve::Impl {

/// A run that was caught. Times are on the monotonic clock.
struct CaughtRun {
  StallCatch const& found;
  std::int64_t until;  ///< its end, or now
  std::int64_t cpu;
  bool lasting;  ///< it has not ended
};

/// What is kept of stalls: one entry for each chain of functions of one task name, the latest first
/// and the oldest given up. Passive, and told the time.
class StallRecords {
 public:
  StallRecords(std::size_t stacksMax, unsigned reportsPerMinuteMax)
      : stacksMax_(stacksMax), reportsPerMinuteMax_(reportsPerMinuteMax) {}

  /// True if it is to be told of: the first entry then waits for `takeUntold()`.
  bool add(CaughtRun const& run);
  /// The next stall to tell of, the oldest first. False if there is none.
  bool takeUntold(Stall& stall);
  /// The members of the document *stalls*.
  void write(Document& document) const;
  std::uint64_t caught() const { return caught_; }

 private:
  struct Entry {
    std::string group;
    std::string name;
    TakenStack stack;  // the latest
    std::uint64_t count = 0;
    std::int64_t firstStarted = 0;
    std::int64_t lastStarted = 0;
    double firstTime = 0;
    double lastTime = 0;
    std::int64_t longest = 0;
    std::int64_t last = 0;
    std::int64_t lastCpu = 0;
    bool lasting = false;
    bool untold = false;
  };

  Entry& entryOf(StallCatch const& found);
  bool mayTell(std::int64_t now);
  static void write(Document& document, Entry const& entry);

  std::size_t const stacksMax_;
  unsigned const reportsPerMinuteMax_;
  std::vector<Entry> entries_;
  std::uint64_t caught_ = 0;
  std::uint64_t suppressed_ = 0;
  std::int64_t minuteStarted_ = 0;
  unsigned toldInMinute_ = 0;
};

}  // namespace BreloObserve::Impl
