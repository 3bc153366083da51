#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "Zel/Clock.h"
#include "Zel/Export.h"
#include "Zel/Lock.h"
#include "Zel/Ptr.h"

namespace Zel {

/// The lock that the activity loop holds while it delivers.
using ActivityLock = Lock;

/// The settings of the activity loop and its clock. Lives as long as the process.
/// `virtualTime` may be read on any thread; the rest belongs to the thread that runs the loop.
class ZEL_EXPORT ActivityManagerConfig : public PtrInterface {
 public:
  /// Off at first.
  bool virtualTime() const { return virtualTime_.load(std::memory_order_relaxed); }
  /// While on, the loop does not sleep until a notifiee is due: it moves the clock there, unless
  /// that is as late as the clock can tell. What has been skipped stays skipped.
  void virtualTimeIs(bool on) { virtualTime_.store(on, std::memory_order_relaxed); }

  /// Is told, on the loop's thread, of each wait of the loop with its length in nanoseconds, and of
  /// each move of virtual time likewise. A look that does not wait is not told. Null, as at first,
  /// for nobody.
  /// @{
  using WaitHook = void (*)(std::int64_t nanoseconds);
  void waitHookIs(WaitHook hook) { waitHook_.store(hook, std::memory_order_relaxed); }
  WaitHook waitHook() const { return waitHook_.load(std::memory_order_relaxed); }
  /// @}

  /// The clock that drives the activity loop.
  Ptr<Clock> const& clock() const { return clock_; }

  /// The next `System::doRun()`, and only that, lasts for this many seconds of the clock,
  /// even with nothing to do. Zero and less mean one pass that does not wait, infinity for
  /// ever. A NaN throws `std::invalid_argument`.
  void executionTimeIs(double const& seconds);
  /// The execution time that was set, if any, which is thereby used up.
  std::optional<double> takeExecutionTime();

 protected:
  /// The clock is not null.
  explicit ActivityManagerConfig(Ptr<Clock> clock);
  ~ActivityManagerConfig() override;

 private:
  std::atomic<bool> virtualTime_{false};
  std::atomic<WaitHook> waitHook_{nullptr};
  std::optional<double> executionTime_;
  Ptr<Clock> const clock_;
};

/// The process's activity manager, to be had as `activityManager()`.
class ZEL_EXPORT ActivityManager final : public ActivityManagerConfig {
 public:
  /// For the host itself, once. The clock is not null.
  explicit ActivityManager(Ptr<Clock> clock);

 private:
  ~ActivityManager() override;
};

/// The running side of the activity manager. Lives as long as the process.
class ZEL_EXPORT ActivityManagerSm final : public PtrInterface {
 public:
  /// Held by the loop while it delivers, and let go of while it waits or while another thread
  /// wants it between two passes. Its first member is an error-checking `pthread_mutex_t`.
  ActivityLock* activityLock() { return &lock_; }

 private:
  ~ActivityManagerSm() override;

  ActivityLock lock_;
};

/// The one manager; made on first use and never destroyed, so it serves static initialisers
/// and destructors as well. Any thread. Keep the pointer where `virtualTime` is read often.
ZEL_EXPORT Ptr<ActivityManager> const& activityManager();

namespace ActivityFacility {
/// The settings of `activityManager()`, under the same terms.
ZEL_EXPORT Ptr<ActivityManagerConfig> const& activityManagerConfig();
}  // namespace ActivityFacility

namespace ActivityImplFacility {
/// The running side of `activityManager()`, under the same terms.
ZEL_EXPORT Ptr<ActivityManagerSm> const& activityManagerSm();
}  // namespace ActivityImplFacility

}  // namespace Zel
