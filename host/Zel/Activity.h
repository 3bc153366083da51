#pragma once

#include <atomic>
#include <optional>

#include "Zel/Clock.h"
#include "Zel/Lock.h"
#include "Zel/Ptr.h"

namespace Zel {

using ActivityLock = Lock;

/// The settings of the activity loop and its clock. Lives as long as the process.
/// `virtualTime` may be read on any thread; the rest belongs to the thread that runs the loop.
class ActivityManagerConfig : public PtrInterface {
 public:
  bool virtualTime() const { return virtualTime_.load(std::memory_order_relaxed); }
  /// While on, the loop does not sleep until a notifiee is due: it moves the clock there.
  /// What has been skipped stays skipped.
  void virtualTimeIs(bool on) { virtualTime_.store(on, std::memory_order_relaxed); }

  /// The clock that drives the activity loop.
  Ptr<Clock> const& clock() const { return clock_; }

  /// The next `System::doRun()`, and only that, lasts for this many seconds of the clock,
  /// even with nothing to do. Zero and less mean one pass that does not wait, infinity for
  /// ever. A NaN throws `std::invalid_argument`.
  void executionTimeIs(double const& seconds);
  /// The execution time that was set, if any, which is thereby used up.
  std::optional<double> takeExecutionTime();

 protected:
  explicit ActivityManagerConfig(Ptr<Clock> clock);
  ~ActivityManagerConfig() override;

 private:
  std::atomic<bool> virtualTime_{false};
  std::optional<double> executionTime_;
  Ptr<Clock> const clock_;
};

/// The process's activity manager.
class ActivityManager final : public ActivityManagerConfig {
 public:
  explicit ActivityManager(Ptr<Clock> clock);

 private:
  ~ActivityManager() override;
};

/// The running side of the activity manager. Lives as long as the process.
class ActivityManagerSm final : public PtrInterface {
 public:
  /// Held by the loop while it delivers, and let go of while it waits or while another thread
  /// wants it between two passes. Its first member is an error-checking `pthread_mutex_t`.
  ActivityLock* activityLock() { return &lock_; }

 private:
  ~ActivityManagerSm() override;

  ActivityLock lock_;
};

/// The one manager; made on first use and never destroyed, so it serves static initialisers
/// and destructors as well. Keep the pointer where `virtualTime` is read often.
Ptr<ActivityManager> const& activityManager();

namespace ActivityFacility {
/// The settings of `activityManager()`.
Ptr<ActivityManagerConfig> const& activityManagerConfig();
}  // namespace ActivityFacility

namespace ActivityImplFacility {
Ptr<ActivityManagerSm> const& activityManagerSm();
}  // namespace ActivityImplFacility

}  // namespace Zel
