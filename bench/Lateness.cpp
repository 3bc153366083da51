// How late timers are, and how many are early, while handlers spin and a pipe carries traffic.
//
// Many timers run side by side, each starting itself again with a random delay. The figures are of
// elapsed time, from what the timer was started for to its handler. The project's timers go by
// `Brelo::time()`, whose doubles resolve a quarter of a microsecond, and are measured by it.

#include <event2/event_struct.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/TimerWheel.h"
#include "Catalogue.h"
#include "Peers.h"
#include "Run.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr std::uint64_t expiries = 100'000;
constexpr std::size_t timersAtOnce = 2'000;

using Clock = double (*)();

double monotonic() {
  return clockSeconds(CLOCK_MONOTONIC);
}

/// What the handlers of all loops share: the delays, the load, and the lateness of each expiry.
class Load {
 public:
  Load(std::uint64_t count, Clock clock) : clock_(clock), left_(count) {
    if (pipe(pipe_) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    lateness_.reserve(count);
  }
  Load(Load const&) = delete;
  Load& operator=(Load const&) = delete;
  ~Load() {
    close(pipe_[0]);
    close(pipe_[1]);
  }

  int readEnd() const { return pipe_[0]; }
  double now() const { return clock_(); }
  /// In seconds; whole microseconds, as one of the peers counts them.
  double delay() { return static_cast<double>(microseconds_(random_)) * 1e-6; }

  /// A timer that was due then runs its handler. False once there have been enough.
  bool expired(double due) {
    if (left_ == 0) return false;
    lateness_.push_back(now() - due);
    if (left_ % 10 == 0 && write(pipe_[1], "x", 1) != 1) throw std::runtime_error("pipe is full");
    if (left_ % 50 == 0) spin();
    return --left_ != 0;
  }
  void readable() const {
    char bytes[64];
    if (read(pipe_[0], bytes, sizeof bytes) <= 0) throw std::runtime_error("nothing to read");
  }

  /// Median, 99th percentile, and the number of those that were early.
  std::vector<double> figures() {
    std::sort(lateness_.begin(), lateness_.end());
    auto const early = std::lower_bound(lateness_.begin(), lateness_.end(), 0.0);
    auto const at = [&](std::size_t percent) {
      return lateness_[(lateness_.size() - 1) * percent / 100] * 1e9;
    };
    return {at(50), at(99), static_cast<double>(early - lateness_.begin())};
  }

 private:
  void spin() const {
    double const end = now() + 100e-6;
    while (now() < end) {
    }
  }

  Clock clock_;
  int pipe_[2];
  std::uint64_t left_;
  std::vector<double> lateness_;
  std::mt19937 random_;
  std::uniform_int_distribution<int> microseconds_{0, 40'000};
};

class WheelTimers : Brelo::Platform::FdEventHandler {
 public:
  explicit WheelTimers(std::uint64_t count) : load_(count, Brelo::time), timers_(timersAtOnce) {
    pipe_->setReads(true);
    pipe_->setFd(load_.readEnd());
    for (Timer& timer : timers_)
      timer.start(*this);
  }
  std::vector<double> run() {
    Brelo::Platform::doEventLoop();
    return load_.figures();
  }

 private:
  struct Timer : Brelo::TimerWheelEvent {
    void start(WheelTimers& all) {
      owner = &all;
      double const delay = all.load_.delay();
      due = all.load_.now() + delay;
      setTimeout(all.wheel_, delay);
    }
    void timeout() override {
      if (owner->load_.expired(due)) {
        start(*owner);
      } else {
        owner->end();
      }
    }
    WheelTimers* owner = nullptr;
    double due = 0;
  };

  void readFdEvent(int) override { load_.readable(); }
  void writeFdEvent(int) override {}
  void end() {
    pipe_->delFd();
    for (Timer& timer : timers_)
      timer.delTimeout(wheel_);
  }

  Load load_;
  std::shared_ptr<Brelo::TimerWheel> wheel_ =
      Brelo::getTimerWheelForTaskScheduler(Brelo::Platform::eventPriorityDefault);
  std::shared_ptr<Brelo::Platform::FdControl> pipe_ = Brelo::Platform::getFdControl(this);
  std::vector<Timer> timers_;
};

std::vector<double> wheelLateness(std::uint64_t count) {
  return WheelTimers(count).run();
}

std::vector<double> libeventLateness(int flags, std::uint64_t count) {
  struct Timer {
    void start() {
      double const delay = load->delay();
      due = load->now() + delay;
      timeval const span{0, static_cast<suseconds_t>(std::lround(delay * 1e6))};
      event_add(&timer, &span);
    }
    void expired() {
      if (load->expired(due)) {
        start();
      } else {
        event_base_loopbreak(event_get_base(&timer));
      }
    }
    event timer;
    Load* load;
    double due;
  };
  Load load(count, monotonic);
  event reader;
  std::vector<Timer> timers(timersAtOnce);
  LibeventBase const base = makeLibeventBase(flags);  // ends first, with what is still armed
  event_assign(
      &reader, base.get(), load.readEnd(), EV_READ | EV_PERSIST,
      [](evutil_socket_t, short, void* self) { static_cast<Load*>(self)->readable(); }, &load);
  event_add(&reader, nullptr);
  for (Timer& timer : timers) {
    timer.load = &load;
    event_assign(
        &timer.timer, base.get(), -1, 0,
        [](evutil_socket_t, short, void* self) { static_cast<Timer*>(self)->expired(); }, &timer);
    timer.start();
  }
  event_base_dispatch(base.get());
  return load.figures();
}

/// Times of this loop are whole milliseconds after the time that it cached at the head of a pass.
std::vector<double> uvLateness(std::uint64_t count) {
  struct Timer {
    void start() {
      double const delay = load->delay();
      due = load->now() + delay;
      uv_timer_start(
          &timer, [](uv_timer_t* self) { static_cast<Timer*>(self->data)->expired(); },
          static_cast<std::uint64_t>(std::ceil(delay * 1e3)), 0);
    }
    void expired() {
      if (load->expired(due)) {
        start();
      } else {
        uv_stop(timer.loop);
      }
    }
    uv_timer_t timer;
    Load* load;
    double due;
  };
  Load load(count, monotonic);
  uv_poll_t reader;
  std::vector<Timer> timers(timersAtOnce);
  UvLoop loop;
  uv_poll_init(loop.get(), &reader, load.readEnd());
  reader.data = &load;
  uv_poll_start(&reader, UV_READABLE,
                [](uv_poll_t* self, int, int) { static_cast<Load*>(self->data)->readable(); });
  uv_update_time(loop.get());
  for (Timer& timer : timers) {
    uv_timer_init(loop.get(), &timer.timer);
    timer.timer.data = &timer;
    timer.load = &load;
    timer.start();
  }
  uv_run(loop.get(), UV_RUN_DEFAULT);
  return load.figures();
}

std::vector<double> asioLateness(std::uint64_t count) {
  using boost::system::error_code;
  struct Timer {
    Timer(AsioContext& asioContext, Load& mixed)
        : context(asioContext), load(mixed), timer(asioContext) {}
    void start() {
      double const delay = load.delay();
      due = load.now() + delay;
      timer.expires_after(std::chrono::microseconds(std::lround(delay * 1e6)));
      timer.async_wait([this](error_code const& error) {
        if (!error) expired();
      });
    }
    void expired() {
      if (load.expired(due)) {
        start();
      } else {
        context.stop();
      }
    }
    AsioContext& context;
    Load& load;
    boost::asio::steady_timer timer;
    double due = 0;
  };
  struct Reader {
    void wait() {
      end.async_wait(boost::asio::posix::stream_descriptor::wait_read, [this](error_code const&) {
        load.readable();
        wait();
      });
    }
    Load& load;
    boost::asio::posix::stream_descriptor end;
  };
  Load load(count, monotonic);
  AsioContext context;
  Reader reader{load, {context, dup(load.readEnd())}};
  reader.wait();
  std::vector<std::unique_ptr<Timer>> timers;
  for (std::size_t i = 0; i < timersAtOnce; ++i) {
    timers.push_back(std::make_unique<Timer>(context, load));
    timers.back()->start();
  }
  context.run();
  return load.figures();
}

}  // namespace

void addLateness(Catalogue& catalogue) {
  std::vector<Figure> const figures = {
      {"timer lateness", "median", "ns"},
      {"timer lateness", "99th percentile", "ns"},
      {"timer lateness", "early of 100,000", "timers", true},
  };
  auto const add = [&](char const* who, FiguresBody body) {
    catalogue.measureFigures(figures, who, expiries, std::move(body));
  };
  catalogue.measureFiguresOnBackends(figures, expiries, wheelLateness);
  add("libevent", [](std::uint64_t count) { return libeventLateness(libeventPlain, count); });
  add("libevent-precise",
      [](std::uint64_t count) { return libeventLateness(libeventPrecise, count); });
  add("libuv", uvLateness);
  add("asio", asioLateness);
  catalogue.aim({"timer lateness", "median", "brelo-host", 1.0, "libevent-precise"});
  catalogue.aimOnBackends("timer lateness", "early of 100,000", 0, "");
}

}  // namespace Bench
