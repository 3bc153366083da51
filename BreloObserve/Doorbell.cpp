#include "BreloObserve/internal/Doorbell.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace BreloObserve::Impl {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));

void Doorbell::ring() {
  int const before = errno;
  rings_.fetch_add(1, std::memory_order_release);
  syscall(SYS_futex, &rings_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
  errno = before;
}

void Doorbell::wait(std::uint32_t rings, std::int64_t deadline) const {
  constexpr std::int64_t second = 1'000'000'000;
  timespec const time{deadline / second, deadline % second};
  syscall(SYS_futex, &rings_, FUTEX_WAIT_BITSET_PRIVATE, rings, deadline == never ? nullptr : &time,
          nullptr, FUTEX_BITSET_MATCH_ANY);
}

}  // namespace BreloObserve::Impl
