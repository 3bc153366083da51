#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BreloDaemon/Mailbox.h"
#include "BreloDaemon/StopStep.h"
#include "BreloDaemon/WorkerPool.h"

namespace BreloDaemon::Impl {

/// What a pool is made of. Its jobs share it, so that it is there when one of them has been
/// delivered that has ended the pool.
class WorkerThreads : public std::enable_shared_from_this<WorkerThreads> {
 public:
  WorkerThreads(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
                std::string const& name, unsigned threads, std::size_t queueMax);

  bool submit(std::unique_ptr<Job> job);
  /// One job less is on its way.
  void delivered();
  std::size_t waiting();
  /// Waits for the threads, and drops what has not been delivered.
  void end();

 private:
  void startThread();
  void work();
  std::unique_ptr<Job> takeFirst();
  void stop();

  std::string const name_;
  std::size_t const threadsMax_;
  std::size_t const jobsMax_;  // that wait or are worked on
  pid_t const process_;
  std::shared_ptr<WorkerThreads> forEver_;  // itself, in a forked child

  std::mutex mutex_;
  std::condition_variable changed_;
  Post* first_ = nullptr;  // of those that wait
  Post* last_ = nullptr;
  std::size_t waiting_ = 0;
  std::size_t busy_ = 0;  // threads that work
  std::size_t idle_ = 0;  // threads that wait for work
  bool ending_ = false;

  // The loop's thread alone has these.
  std::vector<std::thread> threads_;
  std::size_t undelivered_ = 0;
  bool refusing_ = false;
  bool stopping_ = false;
  std::optional<Mailbox> results_;
  Mailbox::Sender const sender_;
  StopStep step_;
};

}  // namespace BreloDaemon::Impl
