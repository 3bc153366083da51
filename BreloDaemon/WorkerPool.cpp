#include "BreloDaemon/WorkerPool.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <system_error>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/Thread.h"
#include "BreloDaemon/internal/AllSignalsBlocked.h"
#include "BreloDaemon/internal/WorkerThreads.h"

namespace BreloDaemon {

namespace {

constexpr std::size_t threadNameMax = 15;

}  // namespace

WorkerPool::WorkerPool(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                       Brelo::TaskPriority priority, std::string name, unsigned threads,
                       std::size_t queueMax)
    : threads_(std::make_shared<Impl::WorkerThreads>(std::move(scheduler), priority, name, threads,
                                                     queueMax)) {}

WorkerPool::~WorkerPool() {
  threads_->end();
}

bool WorkerPool::submitJob(std::unique_ptr<Impl::Job> job) {
  return threads_->submit(std::move(job));
}

std::size_t WorkerPool::waiting() const {
  return threads_->waiting();
}

namespace Impl {

/// The pool may end while this delivers.
void Job::run() {
  struct Delivered {
    ~Delivered() { of->delivered(); }
    std::shared_ptr<WorkerThreads> of;
  } const delivered{threads};
  deliver();
}

WorkerThreads::WorkerThreads(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                             Brelo::TaskPriority priority, std::string const& name,
                             unsigned threads, std::size_t queueMax)
    : name_(name.substr(0, threadNameMax)),
      threadsMax_(threads),
      jobsMax_(queueMax + std::min<std::size_t>(threads, SIZE_MAX - queueMax)),
      process_(::getpid()),
      results_(std::in_place, std::move(scheduler), priority, name),
      sender_(results_->sender()),
      step_(
          "worker pool " + name, [this] { refusing_ = true; }, [this] { stop(); }) {
  if (threads == 0 || queueMax == 0) BRELO_FAIL("WorkerPool", "{} has no room for work", name);
  threads_.reserve(threads);
}

bool WorkerThreads::submit(std::unique_ptr<Job> job) {
  if (refusing_ || !results_ || ::getpid() != process_) return false;
  bool startsThread = false;
  {
    std::lock_guard const lock(mutex_);
    if (waiting_ + busy_ >= jobsMax_) return false;
    startsThread = waiting_ >= idle_ && threads_.size() < threadsMax_;
  }
  if (startsThread) startThread();
  job->threads = shared_from_this();
  ++undelivered_;
  {
    std::lock_guard const lock(mutex_);
    Post* const last = job.release();
    (first_ == nullptr ? first_ : last_->next) = last;
    last_ = last;
    ++waiting_;
  }
  changed_.notify_one();
  return true;
}

void WorkerThreads::startThread() {
  AllSignalsBlocked const inherited;
  try {
    threads_.emplace_back([this] { work(); });
  } catch (...) {
    if (threads_.empty()) throw;  // the others will do it
  }
}

void WorkerThreads::work() {
  Brelo::threadNameIs(name_.c_str());
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    changed_.wait(lock, [this] { return ending_ || first_ != nullptr; });
    --idle_;
    if (ending_) return;
    auto job = takeFirst();
    ++busy_;
    lock.unlock();
    job->work();
    lock.lock();
    --busy_;  // before anybody hears of it
    lock.unlock();
    sender_.push(std::move(job));
    lock.lock();
  }
}

std::unique_ptr<Job> WorkerThreads::takeFirst() {
  std::unique_ptr<Job> job(static_cast<Job*>(first_));
  first_ = std::exchange(job->next, nullptr);
  --waiting_;
  return job;
}

void WorkerThreads::delivered() {
  --undelivered_;
  if (stopping_ && undelivered_ == 0) end();
}

void WorkerThreads::stop() {
  refusing_ = stopping_ = true;
  if (undelivered_ == 0) end();
}

std::size_t WorkerThreads::waiting() {
  if (::getpid() != process_) return 0;
  std::lock_guard const lock(mutex_);
  return waiting_;
}

void WorkerThreads::end() {
  if (!results_) return;
  refusing_ = true;  // what a dropped job destroys may submit
  if (::getpid() != process_) {
    // Nobody will ever wake the threads that the parent had waiting here.
    forEver_ = shared_from_this();
  } else {
    {
      std::lock_guard const lock(mutex_);
      ending_ = true;
    }
    changed_.notify_all();
    for (auto& thread : threads_)
      thread.join();
    threads_.clear();
    while (first_ != nullptr)
      takeFirst();
  }
  results_.reset();
  step_.done();
}

}  // namespace Impl

}  // namespace BreloDaemon
