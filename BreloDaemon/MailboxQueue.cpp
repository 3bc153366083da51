#include "BreloDaemon/internal/MailboxQueue.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include "Brelo/Assert.h"

namespace BreloDaemon::Impl {

namespace {

// What stands in the place of a post where there is none.
Post* const asleep = nullptr;
Post* const awake = reinterpret_cast<Post*>(std::uintptr_t{1});
Post* const ended = reinterpret_cast<Post*>(std::uintptr_t{2});

bool isPost(Post const* head) {
  return reinterpret_cast<std::uintptr_t>(head) > 2;
}

}  // namespace

MailboxQueue::MailboxQueue() : wakeFd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (!wakeFd_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

MailboxQueue::~MailboxQueue() {
  PostList left = end();
  while (left.first != nullptr)
    delete std::exchange(left.first, left.first->next);
}

bool MailboxQueue::push(std::unique_ptr<Post> post) noexcept {
  Post* head = head_.load(std::memory_order_relaxed);
  do {
    if (head == ended) return false;
    post->next = isPost(head) ? head : nullptr;
  } while (!head_.compare_exchange_weak(head, post.get(), std::memory_order_release,
                                        std::memory_order_relaxed));
  static_cast<void>(post.release());
  if (head == asleep) wake();
  return true;
}

void MailboxQueue::wake() const noexcept {
  std::uint64_t const one = 1;
  // An eventfd has always room for one more: a write that fails is one to be made again.
  while (::write(wakeFd_.get(), &one, sizeof one) < 0) {
    if (errno == EBADF || errno == EINVAL) {
      BRELO_FAIL("Mailbox", "descriptor {} was closed under it", wakeFd_.get());
    }
  }
}

void MailboxQueue::forgetWake() const noexcept {
  std::uint64_t wakes;
  // A read that fails leaves it readable, and the loop comes again.
  static_cast<void>(::read(wakeFd_.get(), &wakes, sizeof wakes) < 0);
}

PostList MailboxQueue::takeAll() noexcept {
  return take(awake);
}

bool MailboxQueue::sleep() noexcept {
  Post* expected = awake;
  return head_.compare_exchange_strong(expected, asleep, std::memory_order_acq_rel);
}

PostList MailboxQueue::end() noexcept {
  return take(ended);
}

PostList MailboxQueue::take(Post* leave) noexcept {
  PostList list;
  Post* newest = head_.exchange(leave, std::memory_order_acq_rel);
  if (!isPost(newest)) return list;
  while (newest != nullptr) {
    Post* const older = std::exchange(newest->next, list.first);
    list.first = newest;
    ++list.count;
    newest = older;
  }
  return list;
}

bool MailboxQueue::renewWakeFd() noexcept {
  Descriptor const own(::eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC));
  return own && ::dup3(own.get(), wakeFd_.get(), O_CLOEXEC) >= 0;
}

}  // namespace BreloDaemon::Impl
