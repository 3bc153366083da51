#include "Brelo/core/StackWalk.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <initializer_list>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

namespace Brelo::Impl {

namespace {

// Walks share this, and a fork has it alone: libunwind and the loader have locks of their own,
// which a child would find held by threads that it does not have. A fork that waits goes first.
constexpr pthread_rwlock_t unlocked = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
pthread_rwlock_t walks = unlocked;
thread_local bool forksAlone = false;

// Neither waits for ever, since a signal's handler may walk or fork amid the other.
timespec inASecond() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  ++time.tv_sec;
  return time;
}

bool shareWalks() {
  if (pthread_rwlock_tryrdlock(&walks) == 0) return true;
  timespec const until = inASecond();
  return pthread_rwlock_clockrdlock(&walks, CLOCK_MONOTONIC, &until) == 0;
}

class SharedWalk {
 public:
  SharedWalk() : shares_(shareWalks()) {}
  SharedWalk(SharedWalk const&) = delete;
  ~SharedWalk() {
    if (shares_) pthread_rwlock_unlock(&walks);
  }

 private:
  bool const shares_;
};

void prepareFork() {
  timespec const until = inASecond();
  forksAlone = pthread_rwlock_clockwrlock(&walks, CLOCK_MONOTONIC, &until) == 0;
}

void forkedParent() {
  if (forksAlone) pthread_rwlock_unlock(&walks);
}

void forkedChild() {
  walks = unlocked;  // the child's thread has another number than the holder
}

[[maybe_unused]] int const forkHandled = pthread_atfork(prepareFork, forkedParent, forkedChild);

constexpr std::uintptr_t pageSize = 4096;
constexpr std::uintptr_t noPage = 1;

// What this thread has last found readable, while it reads what may not be there.
thread_local std::uintptr_t readablePage = noPage;

struct Reading {
  ~Reading() {
    readablePage = noPage;
    errno = savedErrno;
  }
  int const savedErrno = errno;
};

bool isReadable(std::uintptr_t address) {
  // To sleep until a word is no longer what it never was: the kernel reads it and returns at once,
  // and if it is, after no time.
  constexpr timespec noTime = {};
  constexpr unsigned unlikely = 0x5a5aa5a5;
  for (std::uintptr_t const end : {address, address + sizeof address - 1}) {
    std::uintptr_t const page = end & ~(pageSize - 1);
    if (page == readablePage) continue;
    std::uintptr_t const word = end & ~(sizeof unlikely - 1);
    auto const result = syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, unlikely, &noTime, nullptr, 0);
    if (result == -1 && errno == EFAULT) return false;
    readablePage = page;
  }
  return true;
}

// The sanitizers' rules are not for a look at other functions' frames.
__attribute__((no_sanitize("address", "thread", "undefined"))) std::uintptr_t wordAt(
    std::uintptr_t address) {
  return *reinterpret_cast<std::uintptr_t const*>(address);
}

/// A walk starts with the registers in its context, which has just been written.
bool isInContext(std::uintptr_t address, void const* context) {
  constexpr std::uintptr_t flag = 1;  // libunwind keeps one of its own in the pointer
  return address - (reinterpret_cast<std::uintptr_t>(context) & ~flag) < sizeof(unw_context_t);
}

int accessMemory(unw_addr_space_t, unw_word_t address, unw_word_t* value, int write,
                 void* context) {
  if (write != 0) {
    *reinterpret_cast<unw_word_t*>(address) = *value;
  } else if (isInContext(address, context) || isReadable(address)) {
    *value = wordAt(address);
  } else {
    return -UNW_EINVAL;
  }
  return 0;
}

/// libunwind's own way to test an address is to write from it to a pipe and to read the pipe empty
/// again, by numbers that it got at its first walk. In a daemon that has closed all descriptors
/// since, these are files. The first walk of another thread may be setting libunwind up meanwhile,
/// under a lock of its own: what that overwrites is set again at the next walk.
__attribute__((no_sanitize("thread"))) void testAddressesWithoutPipe() {
  auto* const access = &unw_get_accessors(unw_local_addr_space)->access_mem;
  if (__atomic_load_n(access, __ATOMIC_RELAXED) == &accessMemory) return;
  __atomic_store_n(access, &accessMemory, __ATOMIC_RELAXED);
}

[[gnu::noinline]] int walkBySteps(void** frames, int room) {
  unw_context_t context;
  if (unw_getcontext(&context) != 0) return 0;
  unw_cursor_t cursor;
  if (unw_init_local(&cursor, &context) != 0) return 0;
  int count = 0;
  while (count < room && unw_step(&cursor) > 0) {
    unw_word_t address = 0;
    if (unw_get_reg(&cursor, UNW_REG_IP, &address) != 0) break;
    frames[count++] = reinterpret_cast<void*>(address);
  }
  return count;
}

/// For the end of a walk, which hardly ever changes on a thread.
bool endsAtSignal(void const* end) {
  thread_local void const* plainEnd = nullptr;
  if (end == plainEnd) return false;
  if (returnsFromSignal(end)) return true;
  plainEnd = end;
  return false;
}

}  // namespace

bool returnsFromSignal(void const* address) {
  constexpr std::uintptr_t code = 0x0f'00'00'00'0f'c0'c7'48;  // the system call rt_sigreturn
  auto const start = reinterpret_cast<std::uintptr_t>(address);
  Reading const reading;
  return isReadable(start) && wordAt(start) == code;
}

int walkStack(void** frames, int room) {
  SharedWalk const shared;
  Reading const reading;
  testAddressesWithoutPipe();
#ifdef __SANITIZE_THREAD__
  int count = 0;  // the cache of a thread ends after the sanitizer has let go of the thread
#else
  // What libunwind has for this costs a hundredth of the walk by steps. It stops where a signal met
  // a program that had jumped to no code at all.
  int count = unw_backtrace(frames, room);
#endif
  bool const complete = count == room || (count > 0 && !endsAtSignal(frames[count - 1]));
  if (!complete) count = walkBySteps(frames, room);
  return count;
}

}  // namespace Brelo::Impl
