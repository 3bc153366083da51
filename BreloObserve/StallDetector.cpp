#include "BreloObserve/StallDetector.h"

#include <unistd.h>

#include <new>
#include <optional>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/Debug.h"
#include "Brelo/RunObserver.h"
#include "Brelo/TaskImpl.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "BreloDaemon/FunctionTask.h"
#include "BreloObserve/internal/Document.h"
#include "BreloObserve/internal/StallRecords.h"
#include "BreloObserve/internal/StallSlot.h"
#include "BreloObserve/internal/StallText.h"
#include "BreloObserve/internal/StallWatcher.h"

namespace BreloObserve {

namespace {

using Impl::clockNow;

Brelo::ModuleTrace const& observeTrace() {
  static Brelo::ModuleTrace const trace("BreloObserve");
  return trace;
}

StallDetectorOptions checked(StallDetectorOptions const& options) {
  if (options.limit.count() <= 0) {
    BRELO_FAIL("StallDetector", "limit of {} ns", options.limit.count());
  }
  if (options.lasting.count() <= 0) {
    BRELO_FAIL("StallDetector", "lasting after {} ns", options.lasting.count());
  }
  if (options.stacksMax == 0) BRELO_FAIL("StallDetector", "room for no stack");
  return options;
}

/// Lets a signal through to its thread, unless that is so already.
class UnblockedSignal {
 public:
  explicit UnblockedSignal(int signal) {
    sigemptyset(&signals_);
    sigaddset(&signals_, signal);
    sigset_t before;
    pthread_sigmask(SIG_UNBLOCK, &signals_, &before);
    if (sigismember(&before, signal) != 1) sigemptyset(&signals_);
  }
  UnblockedSignal(UnblockedSignal const&) = delete;
  UnblockedSignal& operator=(UnblockedSignal const&) = delete;
  ~UnblockedSignal() { pthread_sigmask(SIG_BLOCK, &signals_, nullptr); }

 private:
  sigset_t signals_;
};

/// A slot for the calling thread. A forked child, where the lock may be held by nobody, keeps it.
class LeasedSlot {
 public:
  LeasedSlot(int signal, Brelo::RunMark& mark)
      : slot_(Impl::StallSlot::forThisThread(signal, mark)) {}
  LeasedSlot(LeasedSlot const&) = delete;
  LeasedSlot& operator=(LeasedSlot const&) = delete;
  ~LeasedSlot() {
    if (isOwn()) slot_.release();
  }

  bool isOwn() const { return getpid() == process_; }  ///< this is not a forked child
  Impl::StallSlot* operator->() const { return &slot_; }
  Impl::StallSlot& operator*() const { return slot_; }

 private:
  Impl::StallSlot& slot_;
  pid_t const process_ = getpid();
};

}  // namespace

class StallDetector::Core : public Brelo::RunObserver {
 public:
  Core(std::shared_ptr<Brelo::TaskSchedulerRoot> root, StallDetectorOptions const& options);
  ~Core() override;

  void runMarkChanged() noexcept override;

  void onStall(std::function<void(Stall const&)> callback);
  std::string document() const;
  std::uint64_t caught() const { return records_.caught(); }

 private:
  void tell();
  static void trace(Stall const& stall);
  Impl::CaughtRun caughtRun(std::int64_t until, bool lasting) const;

  std::shared_ptr<Brelo::TaskSchedulerRoot> const root_;
  std::int64_t const limit_;
  Impl::StallRecords records_;
  std::shared_ptr<std::function<void(Stall const&)> const> callback_;
  BreloDaemon::FunctionTask teller_;
  LeasedSlot const slot_;
  UnblockedSignal const unblocked_;
  std::optional<Impl::StallWatcher> watcher_;
};

StallDetector::Core::Core(std::shared_ptr<Brelo::TaskSchedulerRoot> root,
                          StallDetectorOptions const& options)
    : RunObserver(markChanges),
      root_(std::move(root)),
      limit_(checked(options).limit.count()),
      records_(options.stacksMax, options.reportsPerMinuteMax),
      teller_(root_, Brelo::TaskPriority::normal, "StallDetector", [this] { tell(); }),
      slot_(options.signal, root_->runMark()),
      unblocked_(options.signal),
      watcher_(std::in_place, *slot_, limit_, options.lasting.count()) {
  root_->runObserverAdd(*this);
}

StallDetector::Core::~Core() {
  root_->runObserverRemove(*this);
  watcher_.reset();
  if (!slot_.isOwn()) return;
  try {
    // A run that goes on will end unseen.
    if (slot_->isCaught()) records_.add(caughtRun(clockNow(CLOCK_MONOTONIC), false));
    Stall stall;
    while (records_.takeUntold(stall))
      trace(stall);
  } catch (...) {
    // Without memory for it a stall is not told of.
  }
}

Impl::CaughtRun StallDetector::Core::caughtRun(std::int64_t until, bool lasting) const {
  return {slot_->found(), until, clockNow(CLOCK_THREAD_CPUTIME_ID) - slot_->cpuAtStart(), lasting};
}

void StallDetector::Core::runMarkChanged() noexcept {
  if (!slot_->attend() || !slot_.isOwn()) return;
  try {
    if (records_.add(caughtRun(slot_->phase().since(), false))) teller_.schedule();
  } catch (...) {
    // Without memory for it a stall is not told of.
  }
}

void StallDetector::Core::trace(Stall const& stall) {
  BRELO_TRACE(observeTrace(), 1, "StallDetector", "{}", Impl::textOf(stall));
}

/// The callback may end this.
void StallDetector::Core::tell() {
  Stall stall;
  if (!records_.takeUntold(stall)) return;
  teller_.schedule();
  trace(stall);
  auto const callback = callback_;
  if (callback != nullptr && *callback) (*callback)(stall);
}

void StallDetector::Core::onStall(std::function<void(Stall const&)> callback) {
  callback_ = std::make_shared<std::function<void(Stall const&)> const>(std::move(callback));
}

std::string StallDetector::Core::document() const {
  Impl::Document document("stalls", 1, *root_);
  document.member("limit_s", static_cast<double>(limit_) * 1e-9);
  if (slot_.isOwn() && slot_->isCaught()) {
    Impl::StallRecords records = records_;
    records.add(caughtRun(clockNow(CLOCK_MONOTONIC), true));
    records.write(document);
  } else {
    records_.write(document);
  }
  return document.finish();
}

StallDetector::StallDetector(std::shared_ptr<Brelo::TaskSchedulerRoot> root,
                             StallDetectorOptions options)
    : core_(std::make_unique<Core>(std::move(root), options)) {}

StallDetector::~StallDetector() = default;

void StallDetector::onStall(std::function<void(Stall const& stall)> callback) {
  core_->onStall(std::move(callback));
}

std::string StallDetector::document() const {
  return core_->document();
}

std::uint64_t StallDetector::caught() const {
  return core_->caught();
}

}  // namespace BreloObserve
