#include "BreloObserve/internal/RunAccounts.h"

#include <time.h>

#include <algorithm>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/TaskSchedulerHistory.h"
#include "Brelo/Time.h"

namespace BreloObserve::Impl {

using std::chrono::nanoseconds;

namespace {

nanoseconds asNanoseconds(Brelo::TaskTimeDuration duration) {
  return nanoseconds(duration.count());
}

Brelo::TaskSchedulerRoot& existing(std::shared_ptr<Brelo::TaskSchedulerRoot> const& root) {
  if (root == nullptr) BRELO_FAIL("Monitor", "no root");
  return *root;
}

}  // namespace

nanoseconds threadCpuTime() {
  timespec used{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return std::chrono::seconds(used.tv_sec) + nanoseconds(used.tv_nsec);
}

RunAccounts::RunAccounts(std::shared_ptr<Brelo::TaskSchedulerRoot> root, std::size_t namesMax)
    : RunObserver(ends | emptyLooks | waits), root_(std::move(root)), names_(namesMax) {
  other_ = sumAccount("(other)");
  existing(root_).runObserverAdd(*this);
  clear();
  clearings_ = 0;
}

RunAccounts::~RunAccounts() {
  root_->runObserverRemove(*this);
}

NameAccount RunAccounts::sumAccount(std::string name) const {
  NameAccount sum;
  sum.isSum = true;
  sum.group = existing(root_).schedulerNameRef();
  sum.name = root_->history().stringCache().intern(std::move(name));
  return sum;
}

void RunAccounts::clear() noexcept {
  names_.clearWindow();
  other_.clearWindow();
  Histogram slip = std::move(loop_.slip);
  slip.clear();
  loop_ = {};
  loop_.slip = std::move(slip);
  clearedTime_ = Brelo::time();  // first, so that no run has used more than the window's length
  clearedAt_ = std::chrono::steady_clock::now();
  clearedCpu_ = threadCpuTime();
  ++clearings_;
}

inline NameAccount& RunAccounts::accountOf(Brelo::TaskImpl const& task) noexcept {
  NameAccount* const account = names_.find(task);
  return __builtin_expect(account != nullptr, 1) ? *account : newAccount(task);
}

NameAccount& RunAccounts::newAccount(Brelo::TaskImpl const& task) noexcept {
  NameAccount* const account = names_.make(task);
  return account != nullptr ? *account : other_;
}

inline void RunAccounts::countLook(Brelo::TaskTimeDuration slip) noexcept {
  ++loop_.looks;
  loop_.slip.add(asNanoseconds(slip));
}

void RunAccounts::runEnds(Run const& run) noexcept {
  NameAccount& account = accountOf(run.task);
  nanoseconds const used = asNanoseconds(run.used);
  nanoseconds inWindow = used;
  if (__builtin_expect(run.start < clearedAt_, 0)) {
    inWindow = usedInWindow(run, run.end);
    account.beforeWindow += used - inWindow;
  }
  if (run.outer == nullptr) loop_.running += inWindow;
  if (run.slip.count() >= 0 && run.task.taskScheduler().get() == root_.get()) countLook(run.slip);
  if (!account.run.add(used) || !account.wait.add(run.start - run.request)) ++loop_.runsLost;
  account.priority = run.task.taskPriority();
  // Less than before is what a task whose figures have been zeroed meanwhile has done since.
  std::uint64_t const work = run.task.taskWorkCountTotal;
  account.work += work >= run.workCountBefore ? work - run.workCountBefore : work;
  if (run.used > run.task.taskQuantum()) countViolation(account, run);
}

void RunAccounts::countViolation(NameAccount& account, Run const& run) noexcept {
  switch (Brelo::taskQuantumViolation(run.used, run.task.taskQuantum())) {
    case Brelo::TaskQuantumViolation::none:
      break;
    case Brelo::TaskQuantumViolation::of200:
      ++account.violations200;
      break;
    case Brelo::TaskQuantumViolation::of500:
      ++account.violations500;
      break;
  }
}

nanoseconds RunAccounts::usedInWindow(Run const& run, Brelo::TaskTimePoint end) const {
  bool const virtualTime = run.task.taskShouldYieldMode() == Brelo::TaskImpl::yieldModeVirtualTime;
  auto const sinceCleared =
      virtualTime ? asNanoseconds(Brelo::time2Duration(std::max(Brelo::time() - clearedTime_, 0.0)))
                  : std::max(asNanoseconds(end - clearedAt_), nanoseconds());
  return std::min(asNanoseconds(run.used), sinceCleared);
}

nanoseconds RunAccounts::usedSoFar(Run const& run) const {
  Brelo::TaskTimePoint const now = std::chrono::steady_clock::now();
  Run sofar = run;
  sofar.used = run.task.runTimeUntil(now);
  return run.start < clearedAt_ ? usedInWindow(sofar, now) : asNanoseconds(sofar.used);
}

nanoseconds RunAccounts::underWay() const {
  Run const* run = root_->observedRun();
  if (run == nullptr) return {};
  while (run->outer != nullptr)
    run = run->outer;
  return usedSoFar(*run);
}

void RunAccounts::emptyLook(Brelo::TaskScheduler const& scheduler,
                            Brelo::TaskTimeDuration slip) noexcept {
  if (&scheduler == root_.get()) countLook(slip);
}

/// What a loop inside a run waits is that run's.
void RunAccounts::loopWaited(Brelo::TaskTimeDuration length) noexcept {
  ++loop_.waits;
  if (root_->observedRun() == nullptr) loop_.waiting += asNanoseconds(length);
}

void RunAccounts::statsCleared(Brelo::TaskScheduler const& scheduler) noexcept {
  if (&scheduler == root_.get()) clear();
}

void RunAccounts::countLive(Brelo::TaskImpl const& task) noexcept {
  NameAccount& account = accountOf(task);
  ++account.tasks;
  account.runnable += task.onRunQueue() ? 1 : 0;
  account.pending += task.taskWorkPending;
  if (account.run.count() == 0) account.priority = task.taskPriority();
}

std::uint64_t RunAccounts::countLive(Brelo::TaskTimePoint end) {
  constexpr unsigned tasksPerLookAtTheClock = 256;
  for (auto const& account : names_.accounts())
    account->clearLive();
  other_.clearLive();
  std::uint64_t counted = 0;
  bool goOn = true;
  root_->forEachScheduler([&](Brelo::TaskScheduler const& scheduler) {
    if (!goOn) return;
    scheduler.forEachTask([&](Brelo::TaskImpl const& task) {
      countLive(task);
      ++counted;
      goOn = counted % tasksPerLookAtTheClock != 0 || std::chrono::steady_clock::now() < end;
      return goOn;
    });
  });
  for (Run const* run = root_->observedRun(); run != nullptr; run = run->outer)
    accountOf(run->task).underWay += usedSoFar(*run);
  return counted;
}

}  // namespace BreloObserve::Impl
