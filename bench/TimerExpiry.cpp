// Many timers fall due over 50 ms: the CPU time of the process for each, waits left out.
//
// All are started, in random order of their times, before the first is due; only the expiries
// are measured.

#include <event2/event_struct.h>
#include <uv.h>

#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TimerWheel.h"
#include "Catalogue.h"
#include "IdleWatch.h"
#include "Peers.h"
#include "Run.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr std::uint64_t expiries = 100'000;

/// The times, in seconds from construction, and how much of them is left.
class Schedule {
 public:
  explicit Schedule(std::uint64_t timers)
      : leadIn_(0.02 + static_cast<double>(timers) * 3e-6), start_(clockSeconds(CLOCK_MONOTONIC)) {}

  double next() { return leadIn_ + 0.05 * uniform_(random_); }
  double left(double time) const { return time - (clockSeconds(CLOCK_MONOTONIC) - start_); }
  void allStarted() const {
    if (left(leadIn_) < 0) throw std::runtime_error("timers fell due while others were started");
  }

 private:
  double leadIn_;
  double start_;
  std::mt19937 random_;
  std::uniform_real_distribution<double> uniform_{0, 1};
};

struct WheelTimer : Brelo::TimerWheelEvent {
  void timeout() override {
    if (run->finished()) watch->end();
  }
  Run* run = nullptr;
  IdleWatch* watch = nullptr;
};

double expireWheelTimers(std::uint64_t count) {
  auto const wheel = Brelo::getTimerWheelForTaskScheduler(Brelo::Platform::eventPriorityDefault);
  IdleWatch watch;
  std::vector<WheelTimer> timers(count);
  Schedule schedule(count);
  for (WheelTimer& timer : timers)
    timer.setTimeout(wheel, schedule.left(schedule.next()));
  schedule.allStarted();
  Run run(count);
  for (WheelTimer& timer : timers) {
    timer.run = &run;
    timer.watch = &watch;
  }
  Brelo::Platform::doEventLoop();
  return run.seconds();
}

double expireLibeventTimers(int flags, std::uint64_t count) {
  LibeventBase const base = makeLibeventBase(flags);
  std::vector<event> timers(count);
  Run run(count);
  Schedule schedule(count);
  for (event& timer : timers) {
    event_assign(
        &timer, base.get(), -1, 0,
        [](evutil_socket_t, short, void* self) { static_cast<Run*>(self)->finished(); }, &run);
    auto const left = static_cast<suseconds_t>(schedule.left(schedule.next()) * 1e6);
    timeval const delay{left / 1'000'000, left % 1'000'000};
    event_add(&timer, &delay);
  }
  schedule.allStarted();
  run = Run(count);
  event_base_dispatch(base.get());
  return run.seconds();
}

/// Times of this loop are in milliseconds, from the time that it cached before the first start.
double expireUvTimers(std::uint64_t count) {
  std::vector<uv_timer_t> timers(count);
  Run run(count);
  UvLoop loop;
  Schedule schedule(count);
  uv_update_time(loop.get());
  for (uv_timer_t& timer : timers) {
    uv_timer_init(loop.get(), &timer);
    timer.data = &run;
    auto const milliseconds = static_cast<std::uint64_t>(std::ceil(schedule.next() * 1e3));
    uv_timer_start(
        &timer, [](uv_timer_t* self) { static_cast<Run*>(self->data)->finished(); }, milliseconds,
        0);
  }
  schedule.allStarted();
  run = Run(count);
  uv_run(loop.get(), UV_RUN_DEFAULT);
  return run.seconds();
}

double expireAsioTimers(std::uint64_t count) {
  AsioContext context;
  std::vector<boost::asio::steady_timer> timers;
  timers.reserve(count);
  Run run(count);
  Schedule schedule(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    auto& timer = timers.emplace_back(context);
    timer.expires_after(
        std::chrono::nanoseconds(static_cast<std::int64_t>(schedule.left(schedule.next()) * 1e9)));
    timer.async_wait([&run](boost::system::error_code const&) { run.finished(); });
  }
  schedule.allStarted();
  run = Run(count);
  context.run();
  return run.seconds();
}

}  // namespace

void addTimerExpiry(Catalogue& catalogue) {
  std::string const unit = "timer expiry";
  std::string const form = "1e5 timers";
  catalogue.measureBackends(unit, form, expiries, expireWheelTimers);
  catalogue.measure(unit, form, "libevent", expiries,
                    [](std::uint64_t count) { return expireLibeventTimers(libeventPlain, count); });
  catalogue.measure(unit, form, "libevent-precise", expiries, [](std::uint64_t count) {
    return expireLibeventTimers(libeventPrecise, count);
  });
  catalogue.measure(unit, form, "libuv", expiries, expireUvTimers);
  catalogue.measure(unit, form, "asio", expiries, expireAsioTimers);
  for (char const* who : {"brelo-libevent", "brelo-host"}) {
    for (char const* peer : {"libevent", "libuv", "asio"}) {
      catalogue.aim({unit, form, who, 1.0, peer});
    }
  }
}

}  // namespace Bench
