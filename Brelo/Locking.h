#pragma once

#include <atomic>
#include <mutex>
#include <thread>

#include "Brelo/Export.h"

/// Locks that check their own use: releasing one that the calling thread does not hold is an
/// assertion. A mutex error while locking raises `std::system_error`.

namespace Brelo::Locking {

/// A mutex for one entry. To take it again is a deadlock.
class BRELO_EXPORT Lock {
 public:
  void lock();             ///< waits until it is free
  bool try_lock();         ///< false: it is held
  void unlock();           ///< by the thread that holds it
  bool owns_lock() const;  ///< the calling thread holds it

 private:
  std::mutex mutex_;
  std::atomic<std::thread::id> owner_{};  // the empty id when free
};

/// May be taken again by its holder, and is free after as many releases.
class BRELO_EXPORT RecursiveLock {
 public:
  void lock();             ///< waits while another thread holds it
  bool try_lock();         ///< false: another thread holds it
  void unlock();           ///< undoes one entry of the calling thread
  bool owns_lock() const;  ///< the calling thread holds it

 private:
  unsigned lockCount();

  std::recursive_mutex mutex_;
  std::atomic<std::thread::id> owner_{};
};

/// Holds the lock for a scope, whose body may release it early or, by `releaseIs(false)`, leave
/// it taken.
class BRELO_EXPORT ConditionalGuard {
 public:
  /// Takes the lock.
  explicit ConditionalGuard(Lock& lock);
  ConditionalGuard(ConditionalGuard const&) = delete;
  ConditionalGuard& operator=(ConditionalGuard const&) = delete;
  /// Releases the lock if the calling thread still holds it.
  ~ConditionalGuard();

  /// What the destructor is to do; true at first.
  void releaseIs(bool release) { release_ = release; }

 private:
  Lock& lock_;
  bool release_ = true;
};

}  // namespace Brelo::Locking
