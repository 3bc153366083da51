#pragma once

#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace Zel {

/// `epoll_wait` without waiting, which every pass of the loop makes.
///
/// The C library's is a point of cancellation, and its `syscall` a call from which the processor
/// returns wrongly predicted, as kernels clear these predictions: together a tenth of a pass.
inline int epollNow(int set, epoll_event* events, int capacity) {
#ifdef __x86_64__
  long result;
  register long timeout asm("r10") = 0;
  asm volatile("syscall"
               : "=a"(result)
               : "a"(SYS_epoll_wait), "D"(set), "S"(events), "d"(capacity), "r"(timeout)
               : "rcx", "r11", "memory");
  if (result >= 0) return static_cast<int>(result);
  errno = static_cast<int>(-result);
  return -1;
#else
  return epoll_wait(set, events, capacity, 0);
#endif
}

}  // namespace Zel
