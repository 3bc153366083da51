#include "Brelo/Locking.h"

#include <pthread.h>

#include "Brelo/Assert.h"
#include "Brelo/Thread.h"

namespace Brelo::Locking {

void Lock::lock() {
  mutex_.lock();
  owner_ = std::this_thread::get_id();
}

bool Lock::try_lock() {
  if (!mutex_.try_lock()) return false;
  owner_ = std::this_thread::get_id();
  return true;
}

bool Lock::owns_lock() const {
  return owner_ == std::this_thread::get_id();
}

void Lock::unlock() {
  if (!owns_lock()) {
    BRELO_FAIL("Lock", "attempting to release a lock that is not currently held, owner:{} me:{}",
               toThreadIdString(owner_), toThreadIdString(std::this_thread::get_id()));
  }
  owner_ = std::thread::id();
  mutex_.unlock();
}

void RecursiveLock::lock() {
  mutex_.lock();
  owner_ = std::this_thread::get_id();
}

bool RecursiveLock::try_lock() {
  if (!mutex_.try_lock()) return false;
  owner_ = std::this_thread::get_id();
  return true;
}

bool RecursiveLock::owns_lock() const {
  return owner_ == std::this_thread::get_id();
}

// The depth that the mutex keeps itself.
unsigned RecursiveLock::lockCount() {
  return mutex_.native_handle()->__data.__count;
}

void RecursiveLock::unlock() {
  if (!owns_lock() || lockCount() == 0) {
    BRELO_FAIL(
        "RecursiveLock",
        "attempting to release a lock that is not currently held, owner:{} me:{} lockCount:{}",
        toThreadIdString(owner_), toThreadIdString(std::this_thread::get_id()), lockCount());
  }
  if (lockCount() == 1) owner_ = std::thread::id();
  mutex_.unlock();
}

ConditionalGuard::ConditionalGuard(Lock& lock) : lock_(lock) {
  lock_.lock();
}

ConditionalGuard::~ConditionalGuard() {
  if (release_ && lock_.owns_lock()) lock_.unlock();
}

}  // namespace Brelo::Locking
