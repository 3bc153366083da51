#include "BreloDaemon/internal/BlockedSignals.h"

#include <pthread.h>
#include <time.h>

#include <array>
#include <atomic>
#include <utility>

#include "Brelo/Assert.h"

namespace BreloDaemon::Impl {

namespace {

template <class Element>
using BySignal = std::array<Element, NSIG>;

thread_local BySignal<unsigned> users;
thread_local BySignal<bool> blockedHere;  // by this, and not before
BySignal<std::atomic<unsigned>> threads;  // that have it blocked so

template <class Action>
void forEach(sigset_t const& signals, Action action) {
  for (int signal = 1; signal < NSIG; ++signal)
    if (sigismember(&signals, signal) == 1) action(signal, static_cast<std::size_t>(signal));
}

void inForkedChild() {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (int signal = 1; signal < NSIG; ++signal)
    if (threads[static_cast<std::size_t>(signal)] != 0) sigaddset(&blocked, signal);
  pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
  blockedHere.fill(false);
  for (auto& count : threads)
    count = 0;
}

[[maybe_unused]] int const forkHandled = pthread_atfork(nullptr, nullptr, inForkedChild);

}  // namespace

BlockedSignals::BlockedSignals(std::initializer_list<int> signals) {
  sigemptyset(&signals_);
  for (int const signal : signals) {
    if (signal == SIGKILL || signal == SIGSTOP || sigaddset(&signals_, signal) != 0)
      BRELO_FAIL("SignalTask", "signal {} cannot be had", signal);
  }
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &signals_, &before);
  forEach(signals_, [&](int signal, std::size_t at) {
    ++users[at];
    if (sigismember(&before, signal) == 1) return;
    blockedHere[at] = true;
    ++threads[at];
  });
}

void BlockedSignals::release() {
  sigset_t free;
  sigset_t nobodys;
  sigemptyset(&free);
  sigemptyset(&nobodys);
  forEach(signals_, [&](int signal, std::size_t at) {
    if (--users[at] != 0 || !std::exchange(blockedHere[at], false)) return;
    sigaddset(&free, signal);
    if (--threads[at] == 0) sigaddset(&nobodys, signal);
  });
  sigemptyset(&signals_);
  // What came too late to be delivered is dropped: left to its disposition it may end the process.
  timespec const now{};
  while (sigtimedwait(&nobodys, nullptr, &now) > 0) {
  }
  pthread_sigmask(SIG_UNBLOCK, &free, nullptr);
}

}  // namespace BreloDaemon::Impl
