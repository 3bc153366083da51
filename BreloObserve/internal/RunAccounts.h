#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Brelo/RunObserver.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "BreloObserve/internal/NameAccount.h"
#include "BreloObserve/internal/NameTable.h"

namespace BreloObserve::Impl {

/// What a monitor counts, as it happens: the accounts of the names and of the loop, from the
/// beginning of the window on.
class RunAccounts final : Brelo::RunObserver {
 public:
  RunAccounts(std::shared_ptr<Brelo::TaskSchedulerRoot> root, std::size_t namesMax);
  RunAccounts(RunAccounts const&) = delete;
  RunAccounts& operator=(RunAccounts const&) = delete;
  ~RunAccounts() override;

  Brelo::TaskSchedulerRoot const& root() const { return *root_; }
  void clear() noexcept;  ///< begins a new window

  /// The loop's figures of the window.
  struct Loop {
    std::chrono::nanoseconds running{};  // without the run that is under way
    std::chrono::nanoseconds waiting{};
    std::uint64_t looks = 0;
    std::uint64_t waits = 0;
    std::uint64_t runsLost = 0;
    Histogram slip;
  };
  Loop const& loop() const { return loop_; }
  /// When the window began, on the clock of `Brelo::time()`, and the thread's CPU time then.
  /// @{
  double clearedTime() const { return clearedTime_; }
  std::chrono::nanoseconds clearedCpu() const { return clearedCpu_; }
  /// @}
  std::uint64_t clearings() const { return clearings_; }  ///< since the first window
  /// What the root's run that is under way has used in the window so far, or zero.
  std::chrono::nanoseconds underWay() const;

  /// Looks at the live tasks, and at the runs that are under way, for their part in the accounts,
  /// until `end`. Returns how many tasks it has come to.
  std::uint64_t countLive(Brelo::TaskTimePoint end);
  /// Calls `visit(account)` for the names with a run in the window or a live task when they were
  /// looked at, with "(other)" for those that there was no room for.
  template <class Visit>
  void forEachUsed(Visit visit) const {
    for (auto const& account : names_.accounts()) {
      if (account->inUse()) visit(*account);
    }
    if (other_.inUse()) visit(other_);
  }
  /// An empty account of that name.
  NameAccount sumAccount(std::string name) const;

 private:
  void runEnds(Run const& run) noexcept override;
  void emptyLook(Brelo::TaskScheduler const& scheduler,
                 Brelo::TaskTimeDuration slip) noexcept override;
  void loopWaited(Brelo::TaskTimeDuration length) noexcept override;
  void statsCleared(Brelo::TaskScheduler const& scheduler) noexcept override;

  void countLook(Brelo::TaskTimeDuration slip) noexcept;
  NameAccount& accountOf(Brelo::TaskImpl const& task) noexcept;
  NameAccount& newAccount(Brelo::TaskImpl const& task) noexcept;
  static void countViolation(NameAccount& account, Run const& run) noexcept;
  void countLive(Brelo::TaskImpl const& task) noexcept;
  std::chrono::nanoseconds usedInWindow(Run const& run, Brelo::TaskTimePoint end) const;
  std::chrono::nanoseconds usedSoFar(Run const& run) const;

  std::shared_ptr<Brelo::TaskSchedulerRoot> root_;  // outlives all names below
  NameTable names_;
  Brelo::TaskTimePoint clearedAt_;
  Loop loop_;
  NameAccount other_;
  double clearedTime_ = 0;
  std::chrono::nanoseconds clearedCpu_{};
  std::uint64_t clearings_ = 0;
};

std::chrono::nanoseconds threadCpuTime();  ///< of the calling thread

}  // namespace BreloObserve::Impl
