// One callback that asks for its next call, with one poll between two calls.

#include <cstdint>
#include <memory>
#include <string>

#include "Accounting.h"
#include "Brelo/Platform.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Catalogue.h"
#include "Passes.h"
#include "RepeatingTask.h"
#include "Units.h"

namespace Bench {

namespace {

constexpr std::uint64_t passes = 100'000;

double taskPasses(std::uint64_t count) {
  auto const root = Brelo::schedulerRootBreloNonShared("bench");
  auto const task = std::make_shared<RepeatingTask>(root, count);
  task->scheduleTask();
  Brelo::Platform::doEventLoop();
  return task->seconds();
}

/// A task always keeps its accounts: the project is the same in both units.
template <class Work>
void addUnit(Catalogue& catalogue, std::string const& unit) {
  catalogue.measureBackends(unit, "1 task", passes, taskPasses);
  catalogue.measure(unit, "1 task", "libevent", passes,
                    [](std::uint64_t count) { return libeventPasses<Work>(libeventPlain, count); });
  catalogue.measure(unit, "1 task", "libevent-precise", passes, [](std::uint64_t count) {
    return libeventPasses<Work>(libeventPrecise, count);
  });
  catalogue.measure(unit, "1 task", "libuv", passes, uvPasses<Work>);
  catalogue.measure(unit, "1 task", "asio", passes, asioPasses<Work>);
}

}  // namespace

void addDispatch(Catalogue& catalogue) {
  addUnit<NoAccounting>(catalogue, "dispatch");
  addUnit<Accounting>(catalogue, "dispatch with accounting");
  catalogue.aim({"dispatch with accounting", "1 task", "brelo-libevent", 1.25, "libevent-precise"});
  catalogue.aim({"dispatch with accounting", "1 task", "brelo-host", 1.0, "libevent"});
  catalogue.aim({"dispatch with accounting", "1 task", "brelo-host", 1.0, "asio"});
}

}  // namespace Bench
