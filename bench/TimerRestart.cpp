// A random one of many pending timers is moved to a random time, 1 to 100 seconds away.
//
// It is done from inside the loop, a thousand moves to a pass, so that what a loop leaves for
// later (a cancelled wait, a timer of the loop's own) is in the figure and the poll hardly is.

#include <event2/event_struct.h>
#include <uv.h>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/Task.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/TimerWheel.h"
#include "Catalogue.h"
#include "Peers.h"
#include "Run.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr std::uint64_t restarts = 200'000;
constexpr unsigned restartsPerPass = 1000;

/// Which timer and when: the same sequence for all, at the cost of a few nanoseconds.
class Choice {
 public:
  explicit Choice(std::size_t timers) : timers_(timers) {}
  std::size_t timer() {
    return static_cast<std::size_t>((std::uint64_t{random_()} * timers_) >> 31);
  }
  std::uint64_t microseconds() { return 1'000'000 + std::uint64_t{random_()} % 99'000'000; }

 private:
  std::minstd_rand random_;
  std::size_t timers_;
};

/// Runs one pass: true after the last restart.
template <class Restart>
bool restartMany(Run& run, Choice& choice, Restart restart) {
  for (unsigned i = 0; i < restartsPerPass; ++i) {
    std::size_t const timer = choice.timer();
    restart(timer, choice.microseconds());
    if (run.finished()) return true;
  }
  return false;
}

template <class Restart>
void startAll(std::size_t timers, Choice& choice, Restart restart) {
  for (std::size_t i = 0; i < timers; ++i)
    restart(i, choice.microseconds());
}

double seconds(std::uint64_t microseconds) {
  return static_cast<double>(microseconds) * 1e-6;
}

/// Passes of the project's loop, each a callback.
template <class Restart>
class Passes : Brelo::Platform::CallbackHandler {
 public:
  Passes(std::uint64_t count, Choice& choice, Restart restart)
      : control_(Brelo::Platform::getCallbackControl(this)),
        choice_(choice),
        restart_(restart),
        run_(count) {}

  double seconds() {
    control_->requestCallback();
    // The timers are still pending when the run is over: the loop is left a bounded time later.
    while (!finished_)
      Brelo::Platform::doEventLoop(0.01);
    return run_.seconds();
  }

 private:
  void callback() override {
    finished_ = restartMany(run_, choice_, restart_);
    if (!finished_) control_->requestCallback();
  }

  std::shared_ptr<Brelo::Platform::CallbackControl> control_;
  Choice& choice_;
  Restart restart_;
  bool finished_ = false;
  Run run_;
};

struct WheelTimer : Brelo::TimerWheelEvent {
  void timeout() override {}
};

double restartWheelTimers(std::size_t count, std::uint64_t operations) {
  auto const wheel = Brelo::getTimerWheelForTaskScheduler(Brelo::Platform::eventPriorityDefault);
  std::vector<WheelTimer> timers(count);
  Choice choice(count);
  auto const restart = [&](std::size_t timer, std::uint64_t microseconds) {
    timers[timer].setTimeout(wheel, seconds(microseconds));
  };
  startAll(count, choice, restart);
  double const result = Passes(operations, choice, restart).seconds();
  for (WheelTimer& timer : timers)
    timer.delTimeout(wheel);
  return result;
}

struct IdleTimerTask : Brelo::TimerTask {
  using TimerTask::TimerTask;
  void taskExecute() override {}
};

double restartTimerTasks(std::size_t count, std::uint64_t operations) {
  auto const root = Brelo::schedulerRootBreloNonShared("bench");
  std::vector<std::shared_ptr<IdleTimerTask>> timers(count);
  for (auto& timer : timers) {
    timer = std::make_shared<IdleTimerTask>(root, Brelo::TaskPriority::normal, "bench");
  }
  Choice choice(count);
  auto const restart = [&](std::size_t timer, std::uint64_t microseconds) {
    timers[timer]->scheduleTaskDelay(seconds(microseconds));
  };
  startAll(count, choice, restart);
  return Passes(operations, choice, restart).seconds();
}

double restartLibeventTimers(int flags, std::size_t count, std::uint64_t operations) {
  LibeventBase const base = makeLibeventBase(flags);
  std::vector<event> timers(count);
  for (event& timer : timers) {
    event_assign(
        &timer, base.get(), -1, 0, [](evutil_socket_t, short, void*) {}, nullptr);
  }
  Choice choice(count);
  auto const restart = [&](std::size_t timer, std::uint64_t microseconds) {
    timeval const delay{static_cast<time_t>(microseconds / 1'000'000),
                        static_cast<suseconds_t>(microseconds % 1'000'000)};
    event_add(&timers[timer], &delay);
  };
  startAll(count, choice, restart);

  struct Pass {
    event self;
    std::function<bool()> work;
  };
  Run run(operations);
  Pass pass{{}, [&] { return restartMany(run, choice, restart); }};
  timeval const zero{};
  event_assign(
      &pass.self, base.get(), -1, 0,
      [](evutil_socket_t, short, void* data) {
        auto* const self = static_cast<Pass*>(data);
        timeval const now{};
        if (self->work()) {
          event_base_loopbreak(event_get_base(&self->self));
        } else {
          event_add(&self->self, &now);
        }
      },
      &pass);
  event_add(&pass.self, &zero);
  event_base_dispatch(base.get());
  for (event& timer : timers)
    event_del(&timer);
  return run.seconds();
}

double restartUvTimers(std::size_t count, std::uint64_t operations) {
  std::vector<uv_timer_t> timers(count);
  uv_idle_t idle;
  UvLoop loop;
  for (uv_timer_t& timer : timers)
    uv_timer_init(loop.get(), &timer);
  Choice choice(count);
  auto const restart = [&](std::size_t timer, std::uint64_t microseconds) {
    uv_timer_start(
        &timers[timer], [](uv_timer_t*) {}, microseconds / 1000, 0);
  };
  startAll(count, choice, restart);

  Run run(operations);
  std::function<bool()> work = [&] { return restartMany(run, choice, restart); };
  uv_idle_init(loop.get(), &idle);
  idle.data = &work;
  uv_idle_start(&idle, [](uv_idle_t* handle) {
    if ((*static_cast<std::function<bool()>*>(handle->data))()) uv_stop(handle->loop);
  });
  uv_run(loop.get(), UV_RUN_DEFAULT);
  return run.seconds();
}

double restartAsioTimers(std::size_t count, std::uint64_t operations) {
  AsioContext context;
  std::vector<boost::asio::steady_timer> timers;
  timers.reserve(count);
  for (std::size_t i = 0; i < count; ++i)
    timers.emplace_back(context);
  Choice choice(count);
  auto const restart = [&](std::size_t timer, std::uint64_t microseconds) {
    timers[timer].expires_after(std::chrono::microseconds(microseconds));
    timers[timer].async_wait([](boost::system::error_code const&) {});
  };
  startAll(count, choice, restart);

  Run run(operations);
  std::function<void()> pass = [&] {
    if (restartMany(run, choice, restart)) {
      context.stop();
    } else {
      boost::asio::post(context, [&pass] { pass(); });
    }
  };
  boost::asio::post(context, [&pass] { pass(); });
  context.run();
  return run.seconds();
}

void addForm(Catalogue& catalogue, std::string const& form, std::size_t timers) {
  auto const measure = [&](std::string const& label, std::string const& who, auto restart) {
    catalogue.measure("timer restart", label, who, restarts,
                      [=](std::uint64_t count) { return restart(timers, count); });
  };
  measure(form, "brelo", restartWheelTimers);
  measure(form + " as TimerTask", "brelo", restartTimerTasks);
  measure(form, "libevent", [](std::size_t count, std::uint64_t operations) {
    return restartLibeventTimers(libeventPlain, count, operations);
  });
  measure(form, "libevent-precise", [](std::size_t count, std::uint64_t operations) {
    return restartLibeventTimers(libeventPrecise, count, operations);
  });
  measure(form, "libuv", restartUvTimers);
  measure(form, "asio", restartAsioTimers);
}

}  // namespace

void addTimerRestart(Catalogue& catalogue) {
  addForm(catalogue, "1e3 timers", 1'000);
  addForm(catalogue, "1e5 timers", 100'000);
  addForm(catalogue, "1e6 timers", 1'000'000);
  catalogue.aim({"timer restart", "1e6 timers", "brelo", 0.25, "libevent"});
  catalogue.aim({"timer restart", "1e6 timers as TimerTask", "brelo", 0.8, "libevent"});
}

}  // namespace Bench
