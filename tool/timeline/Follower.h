#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Commands.h"
#include "Connection.h"
#include "timeline/ProcessTimeline.h"

namespace Tool {

/// Follows the ring of one daemon into a trace file: asks on from the last event, often enough for
/// the ring not to overflow, and has it enlarged. A daemon that goes is asked for again; one that
/// has been restarted is another process of the file.
///
/// The caller polls `descriptor()` for `events()` until `wakeAt()`, and calls `step`.
class Follower {
 public:
  using Clock = Connection::Clock;

  /// Connects, or throws `Failure`. `processes` counts the processes of the file.
  Follower(Target const& target, std::uint64_t capacity, TraceWriter& writer, int& processes);

  int descriptor() const { return connection_ ? connection_->descriptor() : -1; }
  short events() const { return connection_ ? connection_->events() : short{0}; }
  Clock::time_point wakeAt() const;
  /// Does what is to be done now.
  void step();
  /// Asks for what has happened up to now, and ends the process in the file.
  void finish();
  /// Why the daemon cannot be followed at present, if so.
  std::optional<std::string> const& trouble() const { return trouble_; }

 private:
  enum class Asked { nothing, history, stalls };

  void ask();
  std::string historyRequest() const;
  void handle(Answer const& answer);
  void handleHistory(HistoryDocument const& history);
  void endProcess();
  void lose(std::string const& reason);
  void reconnect();

  Target target_;
  std::uint64_t capacity_;
  TraceWriter& writer_;
  int& processes_;
  int process_;  // of the file; a daemon that is restarted gets the next one
  std::optional<Connection> connection_;
  std::optional<std::string> trouble_;
  std::unique_ptr<ProcessTimeline> timeline_;
  Asked asked_ = Asked::nothing;
  bool caughtUp_ = false;  // with the events that there were at the latest answer
  bool hasStalls_ = true;  // as far as is known
  Clock::time_point historyAt_;
  Clock::time_point stallsAt_;
};

}  // namespace Tool
