#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/BackendList.h"

namespace Bench {

/// One run of a measurement: does `count` operations and returns the seconds that they took.
using Body = std::function<double(std::uint64_t count)>;

/// The same for a run that yields several figures, in the order in which they were declared.
using FiguresBody = std::function<std::vector<double>(std::uint64_t count)>;

/// Where a body runs, each time on a fresh thread. What it is for a peer makes no difference.
using BreloTest::Backend;

/// The project on a backend, as the reports have it.
inline std::string whoIs(Backend backend) {
  return "brelo-" + toString(backend);
}

/// What a figure is of: a unit of the report, a form of it, and what the number counts. A form
/// "x as y" is a further form of the project, to be seen beside the peers of form "x".
struct Figure {
  std::string unit;
  std::string form;
  std::string counts;
  bool ofFaults = false;  // not a cost but a number of things that went wrong

  std::string baseForm() const { return form.substr(0, form.find(" as ")); }
};

/// Of all who are measured, the project.
inline bool isOurs(std::string const& who) {
  return who.rfind("brelo", 0) == 0;
}

/// One figure of one library.
struct Measurement {
  Figure figure;
  std::string who;
  std::vector<double> samples;  // one for each repetition

  /// The second smallest sample, since a machine that does other things too only ever adds. Of
  /// faults the largest: none is excused.
  double value() const;
  bool isOurs() const { return Bench::isOurs(who); }
};

/// What the project is to reach: at most `limit` times the value of the peer or, without a peer,
/// at most `limit`.
struct Aim {
  std::string unit;
  std::string form;
  std::string who;
  double limit;
  std::string peer;
};

/// All measurements, in the order of the report. The units fill it (see Units.h); Google
/// Benchmark runs it, one repetition of each measurement after the other in random order, so that
/// a machine's good and bad moments fall to all alike.
class Catalogue {
 public:
  Catalogue(unsigned repetitions, bool small) : repetitions_(repetitions), small_(small) {}
  Catalogue(Catalogue const&) = delete;
  Catalogue& operator=(Catalogue const&) = delete;

  /// The CPU time for one operation. In a small run a hundredth of `count` will do. In `pieces` the
  /// same number of operations is so many times as many samples, to tell what differs by little.
  void measure(std::string unit, std::string form, std::string who, std::uint64_t count, Body body,
               Backend backend = Backend::host, unsigned pieces = 1);
  /// The project on all of its backends.
  /// @{
  void measureBackends(std::string const& unit, std::string const& form, std::uint64_t count,
                       Body const& body);
  void measureFiguresOnBackends(std::vector<Figure> const& figures, std::uint64_t count,
                                FiguresBody const& body);
  /// @}
  void measureFigures(std::vector<Figure> const& figures, std::string const& who,
                      std::uint64_t count, FiguresBody body, Backend backend = Backend::host,
                      unsigned pieces = 1);
  void aim(Aim aim) { aims_.push_back(std::move(aim)); }
  /// The same aim on all backends.
  void aimOnBackends(std::string const& unit, std::string const& form, double limit,
                     std::string const& peer);

  std::deque<Measurement> const& measurements() const { return measurements_; }
  std::vector<Aim> const& aims() const { return aims_; }
  bool hasUnit(std::string const& unit) const;
  /// Null for none.
  Aim const* findAim(Measurement const& ours, std::string const& peer) const;

 private:
  std::deque<Measurement> measurements_;  // at fixed addresses
  std::vector<Aim> aims_;
  unsigned repetitions_;
  bool small_;
};

}  // namespace Bench
