#pragma once

#include <memory>
#include <string>

#include "Brelo/TaskSchedulerRoot.h"
#include "BreloObserve/internal/Request.h"

namespace BreloObserve {
class Monitor;
class StallDetector;
}  // namespace BreloObserve

namespace BreloObserve::Impl {

/// Does what requests ask for, and makes the documents that answer them.
///
/// Those of *report* as JSON and of *framed* are the session's, as is the capacity of the history.
class Answers {
 public:
  /// A monitor or detector that the daemon does not have is null.
  Answers(std::shared_ptr<Brelo::TaskSchedulerRoot> root, Monitor const* monitor,
          StallDetector const* stallDetector, bool traceChanges);

  /// Throws RequestError where it cannot be met.
  std::string document(Request const& request) const;

 private:
  std::string hello() const;
  std::string monitor(Request const& request) const;
  std::string history(Request const& request) const;
  std::string stalls() const;
  std::string exceptions(Request const& request) const;
  std::string pending() const;
  std::string trace(Request const& request) const;
  std::string clear() const;
  std::string reportAsText() const;

  std::shared_ptr<Brelo::TaskSchedulerRoot> root_;
  Monitor const* monitor_;
  StallDetector const* stallDetector_;
  bool traceChanges_;
};

}  // namespace BreloObserve::Impl
