#pragma once

#include <time.h>

#include <cstdint>

namespace Bench {

inline double clockSeconds(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/// Counts the operations of one run and takes the time from its own construction to the end of
/// the last one, so that neither setting up nor taking down is measured.
///
/// The time is the CPU time of the process. Only the expiries and the server ever wait, and there
/// the waits are left out on purpose; what else the machine does is not in the figures.
class Run {
 public:
  explicit Run(std::uint64_t operations) : left_(operations), start_(cpuSeconds()) {}

  /// Counts one operation, and says whether it was the last one. One more, which a loop that has
  /// been stopped may still deliver, is not counted.
  bool finished() {
    if (left_ == 0 || --left_ > 0) return false;
    seconds_ = cpuSeconds() - start_;
    return true;
  }
  double seconds() const { return seconds_; }

 private:
  static double cpuSeconds() { return clockSeconds(CLOCK_PROCESS_CPUTIME_ID); }

  std::uint64_t left_;
  double start_;
  double seconds_ = 0;
};

}  // namespace Bench
