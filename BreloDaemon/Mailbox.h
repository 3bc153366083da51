#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "Brelo/Export.h"
#include "Brelo/TaskPriority.h"

namespace Brelo {
class TaskScheduler;
}

namespace BreloDaemon {

namespace Impl {

/// What is posted: run once on the mailbox's thread, or destroyed unrun.
struct Post {
  Post() = default;
  Post(Post const&) = delete;
  Post& operator=(Post const&) = delete;
  virtual ~Post() = default;
  virtual void run() = 0;  ///< may throw

  Post* next = nullptr;  ///< in a list
};

/// One that calls a callable.
template <class Callable>
class PostOf final : public Post {
 public:
  /// Moves or copies it.
  template <class Given>
  explicit PostOf(Given&& given) : callable_(std::forward<Given>(given)) {}
  void run() override { callable_(); }  ///< calls it

 private:
  Callable callable_;
};

class MailboxQueue;
class MailboxTask;

}  // namespace Impl

/// Calls from any thread into this one: what is posted runs as a task of the scheduler, under its
/// priority and name; its work counts and what is pending are posts.
///
/// A post that is taken (true) is run exactly once, in the order of each sender, and later than
/// what was posted before it, also if it is posted from inside of one. A run takes posts until its
/// quantum is used up. What a posted callable throws goes on to the scheduler, and the posts behind
/// it are for the next run. However many posts come before the mailbox gets to run, they cost one
/// wake.
///
/// The object, and what is run, belong to the scheduler's thread; it keeps the loop running. When
/// it ends, which may be from inside a posted callable, what is left is destroyed unrun on this
/// thread. Asked to stop (see StopStep) it takes no more posts, and ends when those that it has
/// are run. A forked child has a copy of the mailboxes of the thread that forked, and of what was
/// waiting in them; those of other threads take posts there that nobody runs.
class BRELO_EXPORT Mailbox {
 public:
  class Sender;

  /// Throws `std::system_error` if there is no descriptor left, or no watch for it.
  Mailbox(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
          std::string name);
  Mailbox(Mailbox const&) = delete;
  Mailbox& operator=(Mailbox const&) = delete;
  ~Mailbox();

  /// For any number of threads, and for as long as they like.
  Sender sender() const;

 private:
  std::shared_ptr<Impl::MailboxTask> task_;
};

/// Posts to one mailbox, which it may outlive. Any thread may use one; one object is for one
/// thread at a time, and copies are for others.
class BRELO_EXPORT Mailbox::Sender {
 public:
  Sender() = default;  ///< without a mailbox, as to one that has ended

  /// Has `callable()` called on the mailbox's thread. False if the mailbox has ended, and the
  /// callable is then destroyed before this returns. Never waits; one allocation, which may throw
  /// `std::bad_alloc`.
  template <class Callable>
  bool post(Callable&& callable) const {
    using Made = Impl::PostOf<std::decay_t<Callable>>;
    return push(std::make_unique<Made>(std::forward<Callable>(callable)));
  }

  /// For the kit: the same with what has been made already.
  bool push(std::unique_ptr<Impl::Post> post) const noexcept;

 private:
  friend class Mailbox;
  explicit Sender(std::shared_ptr<Impl::MailboxQueue> queue) : queue_(std::move(queue)) {}

  std::shared_ptr<Impl::MailboxQueue> queue_;
};

}  // namespace BreloDaemon
