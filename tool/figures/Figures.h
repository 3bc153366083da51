#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Documents.h"
#include "figures/Histogram.h"

namespace Tool {

/// The durations of one kind of a name, or the slips of a loop.
struct Durations {
  double count = 0;
  double seconds = 0;  ///< the sum
  /// In nanoseconds, of all that has been counted.
  /// @{
  double p50 = 0;
  double p99 = 0;
  double max = 0;
  /// @}
  Histogram histogram;  ///< empty unless the document has it

  double mean() const { return count > 0 ? seconds * 1e9 / count : 0; }  ///< nanoseconds
};

/// What one name has done in one group.
struct NameFigures {
  std::string group;
  std::string name;
  std::string priority;
  bool isGroup = false;  ///< the parent task of a group, whose slices its runs are
  double tasks = 0;      ///< this and the next two are as of now, all others of the window
  double runnable = 0;
  double pending = 0;
  Durations run;
  Durations wait;
  double work = 0;
  double violations = 0;  ///< runs of two quanta or more

  std::string content() const;  ///< the group whose parent task it is, or ""
};

struct LoopFigures {
  double runningSeconds = 0;
  double pollingSeconds = 0;
  double waitingSeconds = 0;
  double cpuSeconds = 0;
  double looks = 0;
  double runs = 0;
  double waits = 0;
  double tasks = 0;
  double runnable = 0;
  Durations slip;
};

/// A task that has been queued for long.
struct QueuedTask {
  std::string group;
  std::string name;
  std::string priority;
  double seconds = 0;
};

/// What a daemon's document *monitor* says, or the difference of two of them.
struct Figures {
  DocumentHead head;
  double clearedUnix = 0;  ///< when the window began, in seconds since 1970
  double clearedCount = 0;
  double seconds = 0;  ///< the length of the window, or of the interval
  LoopFigures loop;
  std::optional<double> nextTimerSeconds;
  std::optional<QueuedTask> longestQueued;
  std::vector<NameFigures> names;
  bool tasksMissing = false;  ///< the live tasks could not all be counted

  double perSecond(double count) const { return seconds > 0 ? count / seconds : 0; }
};

/// Reads a document *monitor*; if it is none, a `Failure` without the socket's path. Members that
/// it lacks, or that no daemon should send, count as 0.
Figures parseMonitor(std::string_view text);

enum class Continuity {
  same,       ///< both are of one window: what is later contains what is earlier
  cleared,    ///< the daemon's figures have been cleared in between
  restarted,  ///< it is another process
};
Continuity continuity(Figures const& now, Figures const& before);

/// What has happened from `before` to `now`, which have to be of one window. What is as of now
/// stays, and percentiles are those of the difference of the histograms. A name whose figures have
/// shrunk, which no daemon should say, counts as a new one.
Figures difference(Figures const& now, Figures const& before);

}  // namespace Tool
