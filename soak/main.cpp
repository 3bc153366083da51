// brelo_soak: simulated days of random work, checked against a model.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <iostream>
#include <random>
#include <string>

#include "Brelo/LibeventFactory.h"
#include "Brelo/Platform.h"
#include "Day.h"
#include "Zel/Activity.h"
#include "Zel/System.h"
#include "support/BackendList.h"

namespace {

using Brelo::Platform::doEventLoop;
using Brelo::Platform::doEventLoopInWaitfor;

void soakHost(double seconds) {
  Soak::Day const day(seconds);
  doEventLoop();
  std::cout << day.report() << std::endl;
}

/// The fast-forward of this backend moves the timers alone, so the host's clock is moved with them.
void soakLibevent(double seconds) {
  Soak::Day day(seconds);
  for (unsigned idle = 0; !day.over(); ++idle) {
    std::uint64_t before;
    do {
      before = day.happened();
      doEventLoopInWaitfor(0);
      doEventLoopInWaitfor(0);  // the bound may end a pass before what is ready has been told
    } while (day.runnable() || day.happened() != before);
    if (day.over()) break;
    day.observe();
    double left = std::ceil(day.untilNext() * 1e6) / 1e6;
    if (left > 0) idle = 0;
    Soak::expect(idle < 100'000, "a timer that is due does not fire");
    Zel::activityManager()->executionTimeIs(left);
    Zel::System::doRun();
    for (double beyond = 1; left > 1e-6; beyond = 0) {  // the first timer is not beyond `left`
      double const offset = Brelo::leVirtualTimeOffset();
      doEventLoopInWaitfor(left + beyond);
      double const moved = Brelo::leVirtualTimeOffset() - offset;
      // A stall between the reading of the clock and the arming of a timer makes that later.
      Soak::expect(moved < left + Soak::Model::twoTicks + 1e-3 + 2 * day.model.stall(),
                   "the timers were moved by {} s, the first one was due in {} s", moved, left);
      left -= moved;
    }
  }
  doEventLoop();
  std::cout << day.report() << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
  double hours = 24;
  std::string backend = "both";
  Soak::seed = std::random_device{}();
  CLI::App app{"Simulated hours of random work in virtual time, checked against a model."};
  app.add_option("--hours", hours, "simulated hours")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--seed", Soak::seed, "what the random operations come from; random by default");
  app.add_option("--backend", backend, "event loop to run on")
      ->check(CLI::IsMember({"host", "libevent", "both"}))
      ->capture_default_str();
  app.add_option("--history", Soak::historyFile,
                 "file to append the latest events to, for brelo timeline --from");
  CLI11_PARSE(app, argc, argv);

  signal(SIGPIPE, SIG_IGN);
  std::cout << "seed " << Soak::seed << std::endl;
  Brelo::Platform::setFastForward(true);
  Brelo::setLeFastForward(true);
  for (BreloTest::Backend const each : BreloTest::backends) {
    Soak::backend = toString(each);
    if (backend != "both" && backend != Soak::backend) continue;
    auto const soak = each == BreloTest::Backend::host ? soakHost : soakLibevent;
    BreloTest::onBackend(each, [&] { soak(hours * 3600); });
  }
}
