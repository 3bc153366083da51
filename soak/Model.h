#pragma once

#include <fmt/format.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Soak {

// What a difference is told with.
inline std::uint64_t seed;
inline std::string backend;
inline double simulated;  // seconds

inline std::string historyFile;  // to save the first root's events in, if given

/// Ends the process with status 1 and a text.
[[noreturn]] void differ(std::string const& what);

template <class... Args>
void expect(bool holds, char const* what, Args const&... args) {
  if (!holds) differ(fmt::format(fmt::runtime(what), args...));
}

struct Job;

/// One scheduler.
struct Home {
  std::string name;
  Home* root;
  Job const* first = nullptr;      // its first task, to which a reset comes last
  bool suspended = false;          // of a root
  unsigned jobs = 0, waiting = 0;  // tasks; queued ones in the tree of a root
  // By level, in the order of the requests: a count and, for timers, the time of the expiry.
  std::set<std::tuple<std::uint64_t, double, Job*>> queues[5];
  std::map<std::string, std::pair<unsigned, unsigned>> ended;  // tasks and runs by stats name
  unsigned keptByEnded[5] = {};                                // by level: as `Job::kept`, of those
};

/// One task.
struct Job {
  std::string name, statsName;
  std::shared_ptr<Home> home;
  unsigned char level;
  bool predicted = true;                    // false: a descriptor asks for its runs
  std::function<bool()> timerRunning = {};  // asks the library
  bool suspended = false, queued = false, armed = false;
  std::uint32_t runs = 0;
  std::uint32_t kept = 0;  // of these, from before the latest reset, which has passed it over
  std::tuple<std::uint64_t, double, Job*> place = {};
  double due = 0, latest = 0;  // if armed: its time, and the latest time for it
};

/// A second account of the scheduler, in plain data: it is told of the requests, the runs and the
/// time, and says what cannot be.
class Model {
 public:
  static constexpr double slack = 2e-6;     // a few steps of a double with today's date
  static constexpr double twoTicks = 0.02;  // what the timer wheel does not look at again

  void begin(Job& job);
  void end(Job& job);
  void schedule(Job& job);
  void unschedule(Job& job);
  void arm(Job& job, double due, double now);
  void stop(Job& job);
  void suspend(Job& job, bool on);
  void run(Job& job);
  void reset(Job& job);
  void resetTotals(Home& home);
  /// The runs at that level that a scheduler's total has forgotten, and its tasks have not.
  unsigned kept(Home const& home, unsigned char level) const;
  /// The library's figures of a task; false for one of its own.
  bool agrees(std::string const& name, std::uint32_t runs, bool queued, bool timer,
              bool suspended) const;

  /// The library's clock was read between two readings of the steady clock. True if it has skipped
  /// time since the last call.
  bool see(double before, double now, double after);
  /// What has taken the time up to now since the last call was not the library.
  void notStalled(double now) { lastSeen_ = now; }
  /// The longest time that the library has taken at once.
  double stall() const { return stall_; }
  /// Takes note of the timers that have expired.
  void expire(double now);
  double firstDue() const { return armed_.empty() ? INFINITY : armed_.begin()->first; }
  bool idle() const { return jobs_.empty(); }

  std::vector<std::shared_ptr<Home>> roots;
  std::uint64_t begun = 0, expiries = 0, runs = 0;

 private:
  void enqueue(Job& job, std::uint64_t turn, double due);

  std::map<std::string, Job*> jobs_;
  std::set<std::pair<double, Job*>> armed_;
  std::uint64_t turn_ = 0;
  double skipped_ = 0, lastSeen_ = 0, stall_ = 0;
};

}  // namespace Soak
