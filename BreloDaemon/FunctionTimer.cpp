#include "BreloDaemon/FunctionTimer.h"

#include <cmath>
#include <cstdint>

#include "Brelo/Assert.h"
#include "Brelo/Time.h"
#include "BreloDaemon/StopStep.h"

namespace BreloDaemon {

namespace {

double inSeconds(std::chrono::nanoseconds duration) {
  return std::chrono::duration<double>(duration).count();
}

}  // namespace

class FunctionTimer::Inner : public Brelo::TimerTask {
 public:
  Inner(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
        std::string const& name, FunctionTask::Work work)
      : TimerTask(std::move(scheduler), priority, name),
        work_(std::move(work)),
        stop_(name, nullptr, [this] {
          stopped_ = true;
          cancel();
          stop_.done();
        }) {}

  void once(std::chrono::nanoseconds delay) {
    if (delay.count() < 0) BRELO_FAIL("FunctionTimer", "negative delay of {} ns", delay.count());
    period_ = 0;
    arm(inSeconds(delay));
  }
  void every(std::chrono::nanoseconds period) {
    if (period.count() <= 0) BRELO_FAIL("FunctionTimer", "period of {} ns", period.count());
    period_ = inSeconds(period);
    start_ = Brelo::time();
    arm(period_);
  }
  void cancel() {
    period_ = 0;
    stopTimerTask();
  }

  void taskExecute() override {
    try {
      work_(*this);
    } catch (...) {
      armNext();
      throw;
    }
    armNext();
  }

 private:
  void arm(double seconds) {
    if (!stopped_) scheduleTaskDelay(seconds);
  }
  void armNext() {
    if (period_ == 0 || taskScheduled()) return;  // cancelled, or asked for anew
    double const now = Brelo::time();
    double const passed = std::floor((now - start_) / period_);
    double const next = start_ + (passed + 1) * period_;
    arm(next > now ? next - now : period_);
  }

  FunctionTask::Work work_;
  double period_ = 0;  // seconds; 0: none
  double start_ = 0;   // of the grid, on the clock of `Brelo::time()`
  bool stopped_ = false;
  StopStep stop_;
};

FunctionTimer::FunctionTimer(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                             Brelo::TaskPriority priority, std::string name,
                             FunctionTask::Work work, std::nullptr_t)
    : inner_(std::make_shared<Inner>(std::move(scheduler), priority, name, std::move(work))) {}

FunctionTimer::~FunctionTimer() {
  inner_->cancel();
}

void FunctionTimer::once(std::chrono::nanoseconds delay) {
  inner_->once(delay);
}

void FunctionTimer::every(std::chrono::nanoseconds period) {
  inner_->every(period);
}

void FunctionTimer::cancel() {
  inner_->cancel();
}

bool FunctionTimer::armed() const {
  return inner_->taskScheduled();
}

Brelo::TimerTask& FunctionTimer::task() const {
  return *inner_;
}

}  // namespace BreloDaemon
