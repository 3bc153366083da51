#pragma once

#include <functional>
#include <string>

#include "Brelo/Export.h"

namespace BreloDaemon {

/// A step of the orderly end of the calling thread's daemon: whoever would keep the loop has one.
///
/// At the end every step is first told to `refuse` what is new, the latest made first. Then they
/// are told to `stop`, in the same order, each once the one before it is done. So what a handler
/// uses, made before it, is still there while the handler finishes. Belongs to the thread that
/// made it. Without a daemon on the thread nobody asks.
class BRELO_EXPORT StopStep {
 public:
  /// `name` is what a report on an end that hangs calls the step. Either function may destroy the
  /// step. What one of them throws goes on to the scheduler; a step whose `stop` throws counts as
  /// done, one whose `refuse` throws is told to stop all the same.
  StopStep(std::string name, std::function<void()> refuse, std::function<void()> stop);
  StopStep(StopStep const&) = delete;
  StopStep& operator=(StopStep const&) = delete;
  ~StopStep();  ///< counts as done

  /// Nothing of it keeps the loop any more; also before it was asked, and more than once.
  void done();

 private:
  friend class StopSequence;

  std::string name_;
  std::function<void()> refuse_;
  std::function<void()> stop_;
  StopStep* older_;
  StopStep* newer_ = nullptr;
  bool refused_ = false;
  bool stopped_ = false;
  bool done_ = false;
};

}  // namespace BreloDaemon
