#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Brelo/Task.h"
#include "Brelo/TaskScheduler.h"

namespace Faults {

/// What must hold did not.
struct Wrong : std::logic_error {
  using logic_error::logic_error;
};

/// A program's life in a hundredth of a second: schedulers, groups, timers of every kind,
/// descriptors, all of the daemon kit, reports, an export, exceptions with their
/// backtraces, traces, and the end of it all.
///
/// Whatever is refused, by `std::bad_alloc` or `std::system_error` out of a public operation or the
/// loop's entry, is done once more and has to succeed then; all results are checked. Runs on the
/// calling thread's backend.
class Scenario {
 public:
  /// `entered` is told the name of each part. In those that begin with "text" a failure may end
  /// the process.
  explicit Scenario(std::function<void(char const*)> entered) : entered_(std::move(entered)) {}

  /// Throws `Wrong`.
  void run();
  unsigned refused() const { return refused_; }

 private:
  template <class Operation>
  auto attempt(Operation operation);
  template <class Done>
  void loopUntil(char const* what, Done done);

  void firstUse();
  void tree();
  void tasks();
  void timers();
  void descriptors();
  void connections();
  void threads();
  void signalsAndChildren();
  void serviceManager();
  void names();
  void reports();
  void exports();
  void exceptions();
  void texts();
  void end();

  std::function<void(char const*)> entered_;
  unsigned refused_ = 0;
  std::shared_ptr<Brelo::TaskSchedulerRoot> root_;
  std::shared_ptr<Brelo::TaskGroup> group_;
  std::shared_ptr<Brelo::TaskGroup> inner_;
  std::vector<std::shared_ptr<Brelo::Task>> kept_;
};

}  // namespace Faults
