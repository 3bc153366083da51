// A unit test of something that takes hours, in milliseconds: virtual time.
//
//   build/release/example/virtual_time_test
//
// With it on, the loop does not sleep until the next timer but moves the clock there. What is
// tested needs no change: it reads the time from Brelo::time().
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "Brelo/Task.h"
#include "Brelo/TaskSchedulerRoot.h"

/// What is tested: tries until it succeeds, at first after 1 s, then after twice the last delay,
/// but at least every ten minutes.
class Reconnect : public Brelo::TimerTask {
 public:
  Reconnect(std::shared_ptr<Brelo::TaskScheduler> scheduler, std::function<bool()> attempt)
      : TimerTask(std::move(scheduler), Brelo::TaskPriority::normal, "reconnect"),
        attempt_(std::move(attempt)) {
    scheduleTaskDelay(delay_);
  }

  void taskExecute() override {
    if (attempt_()) return;
    delay_ = std::min(2 * delay_, 600.0);
    scheduleTaskDelay(delay_);
  }

 private:
  std::function<bool()> const attempt_;
  double delay_ = 1;  // seconds
};

bool triesLessAndLessOftenUntilItSucceeds() {
  double const start = Brelo::time();
  std::vector<double> attempts;
  auto const attempt = [&] {
    attempts.push_back(Brelo::time() - start);
    return attempts.back() > 3600;  // the server is away for an hour
  };
  auto const reconnect = std::make_shared<Reconnect>(Brelo::schedulerRootBrelo(), attempt);
  Brelo::Platform::doEventLoop();

  // The time that the test itself takes passes as well: allow for a second of it.
  std::vector<double> const expected = {1,   3,    7,    15,   31,   63,   127, 255,
                                        511, 1023, 1623, 2223, 2823, 3423, 4023};
  return std::equal(attempts.begin(), attempts.end(), expected.begin(), expected.end(),
                    [](double is, double should) { return std::abs(is - should) < 1; });
}

int main() {
  Brelo::Platform::setFastForward(true);
  auto const start = std::chrono::steady_clock::now();
  bool const passed = triesLessAndLessOftenUntilItSucceeds();
  std::chrono::duration<double, std::milli> const real = std::chrono::steady_clock::now() - start;
  std::printf("%s: an hour took %.1f ms\n", passed ? "passed" : "FAILED", real.count());
  return passed ? 0 : 1;
}
