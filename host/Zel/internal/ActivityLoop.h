#pragma once

#include <cstdint>
#include <optional>

#include "Zel/Activity.h"
#include "Zel/internal/ClockQueue.h"
#include "Zel/internal/DescriptorSet.h"

namespace Zel {

/// The loop behind `System::doRun()`.
///
/// One in the process. It keeps nothing between passes but whether it is to stop, so that a run can
/// begin inside another and an exception can leave one anywhere; what is armed, due, watched and
/// found is with the queue and the set.
class ActivityLoop {
 public:
  ActivityLoop(ActivityManagerConfig& config, ClockQueue& clock, DescriptorSet& descriptors,
               ActivityLock& lock)
      : config_(config), clock_(clock), descriptors_(descriptors), lock_(lock) {}

  void run();
  /// The run that is innermost now, or the next one, ends with its pass, which does not wait.
  void stop() { stopped_ = true; }
  ClockQueue& clock() { return clock_; }

 private:
  class Hold;
  struct Run;

  [[gnu::always_inline]] inline bool pass(Run& run);  ///< false: it was the last
  bool waitForFirst(Run& run);
  void look(Run& run, std::int64_t nanoseconds);
  void tell();

  ActivityManagerConfig& config_;
  ClockQueue& clock_;
  DescriptorSet& descriptors_;
  ActivityLock& lock_;
  bool stopped_ = false;
};

ActivityLoop& activityLoop();

}  // namespace Zel
