#include "BreloObserve/Monitor.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "Brelo/Time.h"
#include "BreloObserve/internal/RunAccounts.h"

namespace BreloObserve {

using std::chrono::nanoseconds;

Monitor::Monitor(std::shared_ptr<Brelo::TaskSchedulerRoot> root, MonitorOptions options)
    : accounts_(std::make_unique<Impl::RunAccounts>(std::move(root), options.namesMax)) {}

Monitor::~Monitor() = default;

void Monitor::clear() {
  accounts_->root().sanityCheckCurrentRunningThread();
  accounts_->clear();
}

std::vector<NameFigures> Monitor::names() const {
  accounts_->root().sanityCheckCurrentRunningThread();
  accounts_->countLive(Brelo::TaskTimePoint::max());
  std::vector<NameFigures> figures;
  accounts_->forEachUsed([&](Impl::NameAccount const& account) {
    NameFigures each;
    each.group = account.group.string();
    each.name = account.name.string();
    each.parentGroup = account.parentGroup.string();
    each.isGroup = account.isGroup;
    each.priority = account.priority;
    each.tasks = account.tasks;
    each.runnable = account.runnable;
    each.pending = account.pending;
    each.run = account.run;
    each.wait = account.wait;
    each.used = nanoseconds(std::llround(account.used()));
    each.work = account.work;
    each.violations200 = account.violations200;
    each.violations500 = account.violations500;
    figures.push_back(std::move(each));
  });
  return figures;
}

LoopFigures Monitor::loop() const {
  accounts_->root().sanityCheckCurrentRunningThread();
  Impl::RunAccounts::Loop const& loop = accounts_->loop();
  LoopFigures figures;
  figures.running = loop.running + accounts_->underWay();
  figures.cleared = accounts_->clearedTime();
  figures.length = nanoseconds(std::llround((Brelo::time() - figures.cleared) * 1e9));
  figures.waiting = loop.waiting;
  figures.polling = std::max(figures.length - figures.running - figures.waiting, nanoseconds(0));
  // A forked child's thread begins at zero.
  figures.threadCpu = std::max(Impl::threadCpuTime() - accounts_->clearedCpu(), nanoseconds(0));
  figures.clearings = accounts_->clearings();
  figures.looks = loop.looks;
  figures.waits = loop.waits;
  figures.runsLost = loop.runsLost;
  figures.slip = loop.slip;
  return figures;
}

}  // namespace BreloObserve
