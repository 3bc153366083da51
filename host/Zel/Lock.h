#pragma once

#include <pthread.h>

#include "Zel/Export.h"

namespace Zel {

/// A mutex that knows its owner (of the error-checking kind), which is its first member.
///
/// A thread that holds it already is told so instead of waiting for ever. Lives for the
/// whole process or longer than every thread that uses it.
class ZEL_EXPORT Lock {
 public:
  Lock();
  ~Lock();
  Lock(Lock const&) = delete;
  Lock& operator=(Lock const&) = delete;

  /// False: this thread holds it already, and there is nothing to undo. Any other failure
  /// throws `std::system_error`.
  [[nodiscard]] bool lock();
  /// Throws `std::system_error` on a thread that does not hold it.
  void unlock();

  /// Some thread sleeps until the lock is free; may also be true for a while after that.
  bool contended() const;
  /// Exact, whatever other threads do.
  bool heldByThisThread() const;

  /// In a forked child, where only one thread is left: makes the lock anew, held by this thread or
  /// free.
  void forkedIs(bool held);

  /// The mutex itself, for those who lock it without this class.
  pthread_mutex_t* mutex() { return &mutex_; }

  /// `std::system_error` for a failure to lock `mutex`, with `code` as its errno.
  [[noreturn]] static void throwFailedLock(pthread_mutex_t const* mutex, int code);
  /// The same for a failure to unlock.
  [[noreturn]] static void throwFailedUnlock(pthread_mutex_t const* mutex, int code);

 private:
  pthread_mutex_t mutex_;
};

}  // namespace Zel
