#pragma once

#include <atomic>
#include <cstdint>
#include <limits>

namespace BreloObserve::Impl {

/// Wakes one thread that waits. Rings are counted, so that none is lost between a look at something
/// and the wait; to ring is safe in a signal's handler.
class Doorbell {
 public:
  static constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();

  std::uint32_t rings() const { return rings_.load(std::memory_order_acquire); }
  /// Keeps `errno`.
  void ring();
  /// Until there have been other than `rings`, at most until `deadline` in nanoseconds of the
  /// monotonic clock.
  void wait(std::uint32_t rings, std::int64_t deadline) const;

 private:
  std::atomic<std::uint32_t> rings_{0};
};

}  // namespace BreloObserve::Impl
