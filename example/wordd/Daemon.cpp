#include "Daemon.h"

#include <signal.h>

#include <exception>
#include <initializer_list>
#include <sstream>
#include <stdexcept>

#include "Brelo/Backtrace.h"
#include "Brelo/Platform.h"
#include "Brelo/Time.h"
#include "Trace.h"

namespace Wordd {

namespace {

// More than these in a second are no passing trouble.
constexpr int failuresMax = 100;

}  // namespace

Daemon::Daemon(Options const& options)
    : scheduler_(Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("wordd")),
      output_(std::make_shared<Output>(scheduler_)),
      listener_(std::make_shared<Listener>(scheduler_, options.port, options.limits)) {
  if (!options.statsPath.empty()) {
    stats_ = std::make_shared<StatsServer>(scheduler_, SocketFile(options.statsPath),
                                           options.statsSeconds);
  }
  signals_ = std::make_shared<SignalTask>(
      scheduler_, std::initializer_list<int>{SIGTERM, SIGINT, SIGUSR1, SIGUSR2},
      [this](int signal) { handle(signal); });
  output_->print("listening on 127.0.0.1:" + std::to_string(listener_->port()) + "\n");
}

void Daemon::run() {
  while (!ended_) {
    try {
      Brelo::Platform::doEventLoop();  // returns when it has nothing left to wait for
    } catch (std::exception const& failure) {
      goOnAfter(failure);
      continue;
    }
    if (!ended_) throw std::runtime_error("the event loop has ended by itself");
  }
}

// Memory ran out, or the kernel refused something: the loop is in order and can go on.
void Daemon::goOnAfter(std::exception const& failure) {
  double const now = Brelo::time();
  if (now - failuresSince_ > 1) {
    failuresSince_ = now;
    failures_ = 0;
  }
  if (ended_ || ++failures_ > failuresMax) throw;
  BRELO_TRACE(trace, 1, "Daemon", "survived: {}", failure.what());
  scheduler_->requestSchedulerRun();
}

void Daemon::handle(int signal) {
  switch (signal) {
    case SIGUSR1:
      return print([this](std::ostream& out) {
        scheduler_->statsRenderTextForDebug(out, true, false, true, false);
      });
    case SIGUSR2:
      return print([](std::ostream& out) { Brelo::BacktraceTracker::printAll(out); });
    default:
      return end();
  }
}

void Daemon::print(std::function<void(std::ostream&)> const& report) {
  try {
    std::ostringstream text;
    report(text);
    output_->print(text.str());
  } catch (std::exception const& error) {
    BRELO_TRACE(trace, 1, "Daemon", "no report: {}", error.what());
  }
}

void Daemon::end() {
  print([this](std::ostream& out) { scheduler_->historyRenderTextForDebug(out); });
  listener_.reset();
  stats_.reset();
  signals_.reset();
  output_->finish([this] {
    output_.reset();
    scheduler_.reset();
    ended_ = true;
  });
}

}  // namespace Wordd
