#pragma once

#include <atomic>
#include <memory>

#include "BreloDaemon/Descriptor.h"
#include "BreloDaemon/Mailbox.h"

namespace BreloDaemon::Impl {

/// Posts that are not in a queue any more, linked in the order in which they were made.
struct PostList {
  Post* first = nullptr;
  unsigned count = 0;
};

/// What a mailbox shares with its senders: a list without a lock that any thread pushes onto and
/// one takes from, whole, and a descriptor that wakes that one. It lives until the last of them
/// has gone, so a sender never meets a descriptor of somebody else.
///
/// The taker is asleep or awake. A push wakes it if it was asleep, and nobody does again until it
/// has gone back to sleep, which it can only while nothing waits.
class MailboxQueue {
 public:
  /// Asleep. Throws `std::system_error`.
  MailboxQueue();
  MailboxQueue(MailboxQueue const&) = delete;
  MailboxQueue& operator=(MailboxQueue const&) = delete;
  ~MailboxQueue();

  /// False after `end()`, with the post destroyed. Any thread.
  bool push(std::unique_ptr<Post> post) noexcept;
  /// Makes the descriptor readable. Any thread.
  void wake() const noexcept;

  /// Readable after a wake that is not forgotten.
  int wakeFd() const { return wakeFd_.get(); }
  void forgetWake() const noexcept;
  /// All that waits; awake from here on.
  PostList takeAll() noexcept;
  /// True if nothing waits, and the next push will wake.
  bool sleep() noexcept;
  /// Gives what waits and takes nothing any more.
  PostList end() noexcept;
  /// In a forked child: puts a descriptor that is not the parent's, and is readable, in the place
  /// of the one that is. False if the kernel refuses.
  bool renewWakeFd() noexcept;

 private:
  PostList take(Post* leave) noexcept;

  std::atomic<Post*> head_{nullptr};  // the newest post, or a mark
  Descriptor wakeFd_;
};

}  // namespace BreloDaemon::Impl
