#pragma once

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "Model.h"

namespace Soak {

class Day;

struct Branch : Home {
  std::shared_ptr<Brelo::TaskScheduler> scheduler;
  Branch* parent;
  unsigned groups = 0;
};

/// A task that the day works on, and what asks things of it at random.
struct Actor {
  Actor(Day& itsDay, std::shared_ptr<Branch> const& branch, unsigned char level, char const* kind,
        char const* suffix = "");
  virtual ~Actor();
  virtual void disturb() = 0;
  /// Time has been skipped: nothing may have been waiting for the task.
  virtual void skipped() const {}

  Day& day;
  std::string const task;
  Job job;
};

enum class Kind { plain, timer, stream };
std::shared_ptr<Actor> makeActor(Day& day, std::shared_ptr<Branch> const& branch,
                                 unsigned char level, Kind kind);

/// A simulated day of random work on two roots of the calling thread, against a model. It begins
/// when it is made and ends by itself, with nothing left for the loop to wait for. The second root
/// resets its statistics in the background, for which it stays for good.
class Day : Brelo::Platform::TimeoutHandler {
 public:
  explicit Day(double seconds);

  bool over() const { return branches_.empty(); }
  /// A scheduler has something to run.
  bool runnable() const;
  /// Changes with each run and each plain timer.
  std::uint64_t happened() const { return model.runs + ticks_; }
  /// Seconds to the first timer of any kind.
  double untilNext() const;
  /// The day in one line; after the loop.
  std::string report() const;

  /// To be called at the head of whatever the library calls.
  void observe();
  /// Does something at random.
  void operate();
  void end(Actor const* actor);
  unsigned below(std::size_t bound) { return static_cast<unsigned>(random_() % bound); }

  Model model;
  std::uint64_t bytes = 0;
  std::ptrdiff_t openDescriptors = 0;

 private:
  void timeout() override;
  void tickIn(double seconds);
  void addBranch(std::shared_ptr<Brelo::TaskScheduler> scheduler, Branch* parent);
  void addActor(std::size_t branch, Kind kind);
  void endGroup(std::size_t index);
  void clearStats(Branch& branch);
  void suspend(std::size_t root, bool on);
  void audit() const;
  void audit(Branch const& branch) const;
  Brelo::TaskSchedulerRoot& root(std::size_t index) const;

  double const seconds_, began_, startedAt_;
  std::mt19937_64 random_{seed};
  std::vector<std::shared_ptr<Branch>> branches_;  // the roots first, parents before children
  std::vector<std::shared_ptr<Actor>> actors_;
  std::vector<std::weak_ptr<Brelo::TaskScheduler>> gone_;
  std::shared_ptr<Brelo::Platform::TimerControl> const control_;
  std::uint64_t operations_ = 0, ticks_ = 0;
  double tick_ = 0;  // when the next one is due
  std::ptrdiff_t otherDescriptors_ = 0;
};

}  // namespace Soak
