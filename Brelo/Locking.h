#pragma once

#include <atomic>
#include <mutex>
#include <thread>

/// Locks that check their own use: releasing one that the calling thread does not hold is an
/// assertion. A mutex error while locking raises `std::system_error`.

namespace Brelo::Locking {

class Lock {
 public:
  void lock();
  bool try_lock();
  void unlock();
  /// The calling thread holds it.
  bool owns_lock() const;

 private:
  std::mutex mutex_;
  std::atomic<std::thread::id> owner_{};  // the empty id when free
};

/// May be taken again by its holder, and is free after as many releases.
class RecursiveLock {
 public:
  void lock();
  bool try_lock();
  void unlock();
  bool owns_lock() const;

 private:
  unsigned lockCount();

  std::recursive_mutex mutex_;
  std::atomic<std::thread::id> owner_{};
};

/// Holds the lock for a scope, whose body may release it early or, by `releaseIs(false)`, leave
/// it taken.
class ConditionalGuard {
 public:
  explicit ConditionalGuard(Lock& lock);
  ConditionalGuard(ConditionalGuard const&) = delete;
  ConditionalGuard& operator=(ConditionalGuard const&) = delete;
  /// Releases the lock if the calling thread still holds it.
  ~ConditionalGuard();

  void releaseIs(bool release) { release_ = release; }

 private:
  Lock& lock_;
  bool release_ = true;
};

}  // namespace Brelo::Locking
