#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "Connection.h"
#include "figures/Figures.h"

namespace Tool {

/// An event of a scheduler's history, for people.
struct Event {
  double unixSeconds;
  std::string type;
  std::string subject;
};

/// A stack at which a daemon has stalled.
struct Stall {
  std::string group;
  std::string name;
  std::string place;  ///< the function of the program that held the loop
  double count = 0;
  double lastUnix = 0;
  double lastSeconds = 0;
  double lastCpuSeconds = 0;
  double longestSeconds = 0;
  bool lasting = false;
};

/// A daemon that is asked again and again: connects, asks, and connects again after whatever went
/// wrong. It never waits: its owner polls `descriptor()` for `events()` until `deadline()`, then
/// calls `advance`.
class Watched {
 public:
  using Clock = Connection::Clock;

  Watched(std::string path, Clock::duration interval);

  void advance(Clock::time_point now);
  int descriptor() const { return connection_ ? connection_->descriptor() : -1; }
  short events() const { return connection_ ? connection_->events() : short{0}; }
  Clock::time_point deadline() const;

  void intervalIs(Clock::duration interval) { interval_ = interval; }
  void pausedIs(bool paused) { paused_ = paused; }
  /// Whether events and stalls are asked for as well.
  void detailsAre(bool wanted) { details_ = wanted; }
  void clear();  ///< has the daemon clear its figures, if it is there

  std::string const& path() const { return path_; }
  /// What it said last; null before it has said anything. The figures of a daemon that does not
  /// answer stay.
  Figures const* window() const { return window_ ? &*window_ : nullptr; }
  /// What it has done between its last two answers; after a restart or a clearing, since then.
  Figures const* latest() const { return latest_ ? &*latest_ : nullptr; }
  std::uint64_t answers() const { return answers_; }         ///< how many documents have come
  std::vector<double> const& load() const { return load_; }  ///< the running share, the latest last
  /// Why it does not answer; empty while it does.
  std::string const& trouble() const { return trouble_; }
  /// How long its answer has been outstanding.
  Clock::duration silence(Clock::time_point now) const;
  /// What has happened to its figures, of which people should know; empty for nothing.
  std::string const& notice() const { return notice_; }
  std::deque<Event> const& history() const { return history_; }
  std::vector<Stall> const& stalls() const { return stalls_; }
  /// Why there are none; empty if there can be some.
  /// @{
  std::string const& eventsTrouble() const { return eventsTrouble_; }
  std::string const& stallsTrouble() const { return stallsTrouble_; }
  /// @}

 private:
  enum class Request { monitor, clear, newest, history, stalls };

  void ask(Request request, std::string const& line, Clock::time_point now);
  void askAll(Clock::time_point now);
  void handleAnswer(Request request, Answer const& answer);
  void handleMonitor(std::string const& text);
  void handleNewest(std::string const& text);
  void handleHistory(std::string const& text);
  void handleStalls(std::string const& text);
  void noticeIs(std::string text);

  std::string const path_;
  Clock::duration interval_;
  bool paused_ = false;
  bool details_ = false;
  bool clearWanted_ = false;
  std::optional<Connection> connection_;
  std::deque<Request> outstanding_;
  Clock::time_point asked_;
  Clock::time_point next_;
  std::optional<Figures> window_;
  std::optional<Figures> latest_;
  std::uint64_t answers_ = 0;
  std::vector<double> load_;
  std::string trouble_;
  std::string notice_;
  std::deque<Event> history_;
  std::uint64_t nextEvent_ = 0;  // 0 before the newest one's number is known
  std::vector<Stall> stalls_;
  std::string eventsTrouble_;
  std::string stallsTrouble_;
};

}  // namespace Tool
