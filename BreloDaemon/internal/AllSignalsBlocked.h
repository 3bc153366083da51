#pragma once

#include <pthread.h>
#include <signal.h>

namespace BreloDaemon::Impl {

/// Blocks all signals in the calling thread for its lifetime. A thread that is started meanwhile
/// keeps them blocked.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  AllSignalsBlocked(AllSignalsBlocked const&) = delete;
  AllSignalsBlocked& operator=(AllSignalsBlocked const&) = delete;
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

}  // namespace BreloDaemon::Impl
