#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>
#include <tuple>

#include "figures/Figures.h"

namespace Tool {

/// Durations in the few buckets that Prometheus gets.
class CoarseHistogram {
 public:
  /// Seconds. A run or wait counts as no longer than a bound if the daemon's bucket of it is not:
  /// one that is at most 3 % shorter than a bound may be counted with the next.
  static constexpr std::array<double, 13> bounds{1e-6, 1e-5, 1e-4, 5e-4, 1e-3, 5e-3, 1e-2,
                                                 2e-2, 5e-2, 1e-1, 5e-1, 1,    10};

  void add(Durations const& durations);

  double count(std::size_t bound) const { return counts_[bound]; }  ///< from the bound before on
  double countAll() const;
  double seconds() const { return seconds_; }

 private:
  std::array<double, bounds.size() + 1> counts_{};
  double seconds_ = 0;
};

/// What a name has done since the daemon's start, as far as it has been seen.
struct NameTotals {
  CoarseHistogram run;
  CoarseHistogram wait;
  double work = 0;
  double violations = 0;
  double tasks = 0;  ///< this and the next two are as of now
  double runnable = 0;
  double pending = 0;
};

/// A daemon's figures as counters that never go back while it runs, though its own begin at 0
/// whenever they are cleared: what it has done between two documents is added up. What it did
/// between the last document and the clearing is not seen. A restart begins at 0 again.
class Totals {
 public:
  struct Key {
    bool isGroup;  ///< the name is that of the group below
    std::string group;
    std::string name;
    std::string priority;
    bool operator<(Key const& other) const {
      return std::tie(isGroup, group, name, priority) <
             std::tie(other.isGroup, other.group, other.name, other.priority);
    }
  };

  /// Names that the figures do not have any more are forgotten.
  void add(Figures figures);

  Figures const& latest() const { return *latest_; }  ///< once something has been added
  LoopFigures const& loop() const { return loop_; }   ///< its durations and counts
  CoarseHistogram const& slip() const { return slip_; }
  std::map<Key, NameTotals> const& names() const { return names_; }
  double clears() const { return clears_; }

 private:
  std::optional<Figures> latest_;
  LoopFigures loop_;
  CoarseHistogram slip_;
  std::map<Key, NameTotals> names_;
  double clears_ = 0;
};

}  // namespace Tool
