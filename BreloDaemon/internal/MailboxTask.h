#pragma once

#include <memory>
#include <string>

#include "Brelo/Platform.h"
#include "Brelo/Task.h"
#include "BreloDaemon/StopStep.h"
#include "BreloDaemon/internal/MailboxQueue.h"

namespace BreloDaemon::Impl {

/// The side of a mailbox that runs what is posted. Ends by `end()`, and may live on for as long as
/// the scheduler holds it.
class MailboxTask : public Brelo::Task, Brelo::Platform::FdEventHandler {
 public:
  MailboxTask(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
              std::string const& name);
  ~MailboxTask() override;

  std::shared_ptr<MailboxQueue> const& queue() const { return queue_; }
  /// Destroys what is left, and lets go of the loop.
  void end();

  static void inForkedChild();  ///< renews the mailboxes of the thread that forked

 private:
  void taskExecute() override;
  void readFdEvent(int fd) override;
  void writeFdEvent(int) override {}
  std::string handlerName() const override { return '"' + taskName() + '"'; }

  std::unique_ptr<Post> next();
  void settle(unsigned long ran);
  void scheduleOrWake();
  void stop();
  void takeNoMore() noexcept;

  // The mailboxes of the thread, the newest first. Without a destructor, so that those of static
  // storage find it whenever they go.
  static thread_local MailboxTask* newest;
  MailboxTask* older_ = nullptr;
  MailboxTask* newer_ = nullptr;

  std::shared_ptr<MailboxQueue> queue_;
  std::shared_ptr<Brelo::Platform::FdControl> control_;
  PostList taken_;         // and not run yet
  bool orphaned_ = false;  // in a forked child, for want of a descriptor of its own
  bool stopping_ = false;
  bool ended_ = false;
  StopStep step_;
};

}  // namespace BreloDaemon::Impl
