#pragma once

#include <cstddef>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "Brelo/Export.h"
#include "Brelo/TaskPriority.h"
#include "BreloDaemon/Mailbox.h"

namespace BreloDaemon {

/// How a piece of work ended: with its result, or with what it threw.
template <class Result>
class Outcome {
 public:
  /// The result, which may be moved from; or throws what the work threw.
  Result& get() {
    if (error_ != nullptr) std::rethrow_exception(error_);
    return *result_;
  }
  /// Null after a result.
  std::exception_ptr const& error() const { return error_; }

  /// For the pool: calls `work()`.
  template <class Work>
  void of(Work& work) noexcept {
    try {
      result_.emplace(work());
    } catch (...) {
      error_ = std::current_exception();
    }
  }

 private:
  std::optional<Result> result_;
  std::exception_ptr error_;
};

/// The same of work without a result.
template <>
class Outcome<void> {
 public:
  /// Throws what the work threw.
  void get() const {
    if (error_ != nullptr) std::rethrow_exception(error_);
  }
  /// Null if it threw nothing.
  std::exception_ptr const& error() const { return error_; }

  /// For the pool: calls `work()`.
  template <class Work>
  void of(Work& work) noexcept {
    try {
      work();
    } catch (...) {
      error_ = std::current_exception();
    }
  }

 private:
  std::exception_ptr error_;
};

namespace Impl {

class WorkerThreads;

/// A post that a thread of a pool works on before the loop's thread delivers it.
struct BRELO_EXPORT Job : Post {
  virtual void work() noexcept = 0;  ///< on a thread of the pool
  virtual void deliver() = 0;        ///< on the loop's thread; may throw
  void run() final;                  ///< delivers it

  std::shared_ptr<WorkerThreads> threads;  ///< of the pool
};

/// One of two callables.
template <class Work, class Done>
class JobOf final : public Job {
 public:
  /// Moves or copies them.
  template <class GivenWork, class GivenDone>
  JobOf(GivenWork&& work, GivenDone&& done)
      : work_(std::forward<GivenWork>(work)), done_(std::forward<GivenDone>(done)) {}
  void work() noexcept override { outcome_.of(work_); }    ///< calls the first
  void deliver() override { done_(std::move(outcome_)); }  ///< calls the second

 private:
  Work work_;
  Done done_;
  Outcome<std::invoke_result_t<Work&>> outcome_;
};

}  // namespace Impl

/// Threads for what blocks: work is done on one of them, and what comes of it is handed over on the
/// loop's thread, as a task of the scheduler whose work counts are jobs.
///
/// The threads are started as they are needed, bear the pool's name, cut to what a thread's may be,
/// and block all signals. Work begins in the order in which it was submitted; several pieces are
/// done at the same time and end in any order.
///
/// The pool belongs to the scheduler's thread and keeps its loop running. At its end it drops the
/// work that has not begun, waits for what has, and drops the results: `done` is called for
/// neither. It may end inside of a `done`. Asked to stop (see StopStep) it takes nothing new, and
/// ends when the last result is handed over. A forked child has none of the threads: a pool there
/// takes no work.
class BRELO_EXPORT WorkerPool {
 public:
  /// Up to `threads` pieces of work at a time, and `queueMax` that wait; neither may be 0. Throws
  /// as a Mailbox does.
  WorkerPool(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
             std::string name, unsigned threads, std::size_t queueMax);
  WorkerPool(WorkerPool const&) = delete;
  WorkerPool& operator=(WorkerPool const&) = delete;
  ~WorkerPool();

  /// Has `work()` called on a thread of the pool, and then `done(Outcome<R>&&)` on this one, with
  /// what it returned or threw. Both are destroyed on this thread. False, with both destroyed, if
  /// too much waits, or the pool takes nothing any more. Throws `std::system_error` if there is no
  /// thread and none can be started. What `done` throws goes on to the scheduler; the pool is as it
  /// was.
  template <class Work, class Done>
  bool submit(Work&& work, Done&& done) {
    using Made = Impl::JobOf<std::decay_t<Work>, std::decay_t<Done>>;
    return submitJob(std::make_unique<Made>(std::forward<Work>(work), std::forward<Done>(done)));
  }

  /// Pieces of work that have not begun.
  std::size_t waiting() const;

 private:
  bool submitJob(std::unique_ptr<Impl::Job> job);

  std::shared_ptr<Impl::WorkerThreads> threads_;
};

}  // namespace BreloDaemon
