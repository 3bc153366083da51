#include "BreloObserve/internal/StallSlot.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <system_error>

#include "Brelo/TaskImpl.h"
#include "Brelo/TaskSchedulerBase.h"
#include "Brelo/Thread.h"

namespace BreloObserve::Impl {

namespace {

std::atomic<StallSlot*> firstSlot{nullptr};
std::mutex slotsMutex;

// Who had the signals before. Written before the handler is there.
struct sigaction formerActions[_NSIG];
bool installed[_NSIG];

void passOn(int signal, siginfo_t* info, void* context) {
  struct sigaction const& former = formerActions[signal];
  if ((former.sa_flags & SA_SIGINFO) != 0) {
    former.sa_sigaction(signal, info, context);
  } else if (former.sa_handler == SIG_DFL) {
    // It is blocked until the handler returns, and then does what it would have done.
    sigaction(signal, &former, nullptr);
    raise(signal);
  } else if (former.sa_handler != SIG_IGN) {
    former.sa_handler(signal);
  }
}

template <std::size_t size>
void copyText(std::string const& text, std::array<char, size>& room) {
  std::size_t const length = text.size() < size ? text.size() : size - 1;
  std::memcpy(room.data(), text.data(), length);
  room[length] = '\0';
}

// A child that is forked amid another thread's work at the slots finds the mutex free.
[[maybe_unused]] int const slotsHeldOverForks = pthread_atfork(
    [] { slotsMutex.lock(); }, [] { slotsMutex.unlock(); }, [] { slotsMutex.unlock(); });

bool registerForBarriers() {
  return syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
}

}  // namespace

std::int64_t clockNow(clockid_t clock) {
  timespec time = {};
  clock_gettime(clock, &time);
  return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec;
}

StallSlot& StallSlot::forThisThread(int signal, Brelo::RunMark& mark) {
  std::lock_guard<std::mutex> const lock(slotsMutex);
  install(signal);
  StallSlot* slot = firstSlot.load(std::memory_order_relaxed);
  while (slot != nullptr && slot->inUse_.load(std::memory_order_relaxed))
    slot = slot->next_;
  if (slot == nullptr) {
    slot = new StallSlot;
    slot->next_ = firstSlot.load(std::memory_order_relaxed);
    firstSlot.store(slot, std::memory_order_release);
  }
  slot->mark_ = &mark;
  slot->thread_ = Brelo::gettid();
  slot->signal_ = signal;
  slot->barriers_ = registerForBarriers();
  if (pthread_getcpuclockid(pthread_self(), &slot->cpuClock_) != 0)
    slot->cpuClock_ = CLOCK_THREAD_CPUTIME_ID;
  slot->inUse_.store(true, std::memory_order_relaxed);
  return *slot;
}

void StallSlot::release() {
  withdraw();
  attention_.store(0, std::memory_order_relaxed);
  std::lock_guard<std::mutex> const lock(slotsMutex);
  inUse_.store(false, std::memory_order_relaxed);
}

void StallSlot::install(int signal) {
  if (signal > 0 && signal < _NSIG && installed[signal]) return;
  struct sigaction former;
  struct sigaction ours = {};
  ours.sa_sigaction = &StallSlot::handle;
  ours.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
  sigfillset(&ours.sa_mask);
  if (sigaction(signal, nullptr, &former) == 0) {
    formerActions[signal] = former;
    if (sigaction(signal, &ours, nullptr) == 0) {
      installed[signal] = true;
      return;
    }
  }
  throw std::system_error(errno, std::generic_category(), "StallDetector: signal");
}

bool StallSlot::attend() {
  std::uint32_t const what = attention_.exchange(0, std::memory_order_relaxed);
  if (what != 0) doorbell.ring();
  return (what & caught) != 0;
}

bool StallSlot::ask(Brelo::RunMark::Phase phase, std::int64_t cpuAtStart) {
  cpuAtStart_.store(cpuAtStart, std::memory_order_relaxed);
  asked_.store(phase.word(), std::memory_order_release);
  siginfo_t info = {};
  info.si_signo = signal_;
  info.si_code = SI_QUEUE;
  info.si_pid = getpid();
  info.si_uid = getuid();
  info.si_value.sival_ptr = this;
  return syscall(SYS_rt_tgsigqueueinfo, getpid(), thread_, signal_, &info) == 0;
}

bool StallSlot::sleepsAfter(Brelo::RunMark::Phase phase) {
  attention_.fetch_or(asleep, std::memory_order_relaxed);
  mark_->tellNextChange();
  bool const ordered =
      barriers_ && syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0;
  if (ordered && this->phase() == phase) return true;
  attention_.fetch_and(~asleep, std::memory_order_relaxed);
  return false;
}

StallSlot* StallSlot::asking(siginfo_t const& info) {
  if (info.si_code != SI_QUEUE || info.si_pid != getpid()) return nullptr;
  StallSlot* slot = firstSlot.load(std::memory_order_acquire);
  while (slot != nullptr && slot != info.si_value.sival_ptr)
    slot = slot->next_;
  return slot;
}

void StallSlot::handle(int signal, siginfo_t* info, void* context) {
  int const before = errno;
  if (StallSlot* const slot = asking(*info)) {
    slot->take(context);
  } else {
    passOn(signal, info, context);
  }
  errno = before;
}

/// What it reads belongs to this thread, and is whole between any two instructions of a run.
void StallSlot::take(void const* context) {
  std::uint64_t const asked = asked_.load(std::memory_order_acquire);
  if (asked == 0 || syscall(SYS_gettid) != thread_) return;
  if (asked == mark_->phase().word()) {
    Brelo::TaskImpl const& task = *mark_->task();
    found_.started = Brelo::RunMark::Phase(asked).since();
    taker_.take(context, found_.stack);
    copyText(task.taskScheduler()->schedulerName(), found_.group);
    copyText(task.taskStatsName(), found_.name);
    attention_.fetch_or(caught, std::memory_order_relaxed);
    mark_->tellNextChange();
    asked_.store(0, std::memory_order_release);
  }
  doorbell.ring();
}

}  // namespace BreloObserve::Impl
