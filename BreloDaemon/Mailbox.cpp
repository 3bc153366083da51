#include "BreloDaemon/Mailbox.h"

#include <pthread.h>

#include <utility>

#include "Brelo/LibeventFactory.h"
#include "BreloDaemon/internal/MailboxTask.h"

namespace BreloDaemon {

Mailbox::Mailbox(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
                 std::string name)
    : task_(std::make_shared<Impl::MailboxTask>(std::move(scheduler), priority, name)) {}

Mailbox::~Mailbox() {
  task_->end();
}

Mailbox::Sender Mailbox::sender() const {
  return Sender(task_->queue());
}

bool Mailbox::Sender::push(std::unique_ptr<Impl::Post> post) const noexcept {
  return queue_ != nullptr && queue_->push(std::move(post));
}

namespace Impl {

thread_local MailboxTask* MailboxTask::newest = nullptr;

[[maybe_unused]] static int const forkHandled =
    ::pthread_atfork(nullptr, nullptr, &MailboxTask::inForkedChild);

MailboxTask::MailboxTask(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                         Brelo::TaskPriority priority, std::string const& name)
    : Task(std::move(scheduler), priority, name),
      queue_(std::make_shared<MailboxQueue>()),
      control_(Brelo::Platform::getFdControl(this)),
      step_("mailbox " + name, nullptr, [this] { stop(); }) {
  control_->setReads(true);
  control_->setFd(queue_->wakeFd());
  older_ = std::exchange(newest, this);
  if (older_ != nullptr) older_->newer_ = this;
}

MailboxTask::~MailboxTask() {
  end();
}

void MailboxTask::end() {
  if (std::exchange(ended_, true)) return;
  (newer_ != nullptr ? newer_->older_ : newest) = older_;
  if (older_ != nullptr) older_->newer_ = newer_;
  control_->delFd();
  unscheduleTask();
  PostList left = queue_->end();
  while (taken_.first != nullptr)
    next();
  std::swap(taken_, left);
  while (taken_.first != nullptr)
    next();
  step_.done();
}

void MailboxTask::stop() {
  if (ended_ || stopping_) return;
  takeNoMore();
  taken_.first != nullptr ? scheduleOrWake() : end();
}

void MailboxTask::takeNoMore() noexcept {
  stopping_ = true;
  PostList const last = queue_->end();
  Post** behind = &taken_.first;
  while (*behind != nullptr)
    behind = &(*behind)->next;
  *behind = last.first;
  taken_.count += last.count;
}

void MailboxTask::readFdEvent(int) {
  if (orphaned_) return end();
  scheduleTask();  // first, since a wake that is not forgotten comes again
  queue_->forgetWake();
}

void MailboxTask::taskExecute() {
  if (taken_.first == nullptr && !stopping_) taken_ = queue_->takeAll();
  taskWorkPendingIs(taken_.count);
  unsigned long ran = 0;
  try {
    while (auto post = next()) {
      ++ran;
      post->run();
      post.reset();
      if (taskShouldYield()) break;
    }
  } catch (...) {
    settle(ran);
    throw;
  }
  settle(ran);
}

std::unique_ptr<Post> MailboxTask::next() {
  if (taken_.first == nullptr && !ended_ && !stopping_) taken_ = queue_->takeAll();
  std::unique_ptr<Post> post(taken_.first);
  if (post == nullptr) return post;
  taken_.first = post->next;
  --taken_.count;
  return post;
}

/// Whatever has become of a run: sleeps if nothing is left, and asks for another run otherwise.
void MailboxTask::settle(unsigned long ran) {
  if (ran != 0) taskWorkCountInc(ran);
  taskWorkPendingIs(taken_.count);
  if (ended_) return;
  if (taken_.first != nullptr) return scheduleOrWake();
  if (stopping_) return end();
  if (!queue_->sleep()) scheduleOrWake();
}

void MailboxTask::scheduleOrWake() {
  try {
    scheduleTask();
  } catch (...) {
    queue_->wake();  // or nobody would, since it does not sleep
    throw;
  }
}

/// The parent's descriptor is the parent's: a child that read it would take its wakes.
void MailboxTask::inForkedChild() {
  if (newest == nullptr) return;
  for (MailboxTask* task = newest; task != nullptr; task = task->older_) {
    if (task->queue_->renewWakeFd()) continue;
    task->orphaned_ = true;
    task->takeNoMore();
  }
  // The host's epoll set is made when it is next used. That of libevent may have been already, and
  // have the descriptors of before.
  if (Brelo::leInitialized()) Brelo::leForkReinit();
}

}  // namespace Impl

}  // namespace BreloDaemon
