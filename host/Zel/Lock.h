#pragma once

#include <pthread.h>

namespace Zel {

/// A mutex that knows its owner (of the error-checking kind), which is its first member.
///
/// A thread that holds it already is told so instead of waiting for ever. Lives for the
/// whole process or longer than every thread that uses it.
class Lock {
 public:
  Lock();
  ~Lock();
  Lock(Lock const&) = delete;
  Lock& operator=(Lock const&) = delete;

  /// False: this thread holds it already, and there is nothing to undo. Any other failure
  /// throws `std::system_error`.
  [[nodiscard]] bool lock();
  void unlock();

  /// Some thread sleeps until the lock is free; may also be true for a while after that.
  bool contended() const;
  bool heldByThisThread() const;

  /// In a forked child, where only one thread is left: makes the lock anew, held by this thread or
  /// free.
  void forkedIs(bool held);

  pthread_mutex_t* mutex() { return &mutex_; }

  /// `std::system_error` for a failed operation on `mutex`, with `code` as its error.
  [[noreturn]] static void throwFailedLock(pthread_mutex_t const* mutex, int code);
  [[noreturn]] static void throwFailedUnlock(pthread_mutex_t const* mutex, int code);

 private:
  pthread_mutex_t mutex_;
};

}  // namespace Zel
