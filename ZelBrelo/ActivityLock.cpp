#include "ZelBrelo/ActivityLock.h"

#include <pthread.h>

#include <cerrno>

#include "Zel/Activity.h"

namespace ZelBrelo {

void ActivityLock::lock() {
  pthread_mutex_t* const mutex = lock_->mutex();
  int const code = pthread_mutex_lock(mutex);
  if (code == EDEADLK) {
    owned_ = false;
    return;
  }
  if (code != 0) Zel::Lock::throwFailedLock(mutex, code);
  owned_ = true;
}

void ActivityLock::unlock() {
  if (!owned_) return;
  pthread_mutex_t* const mutex = lock_->mutex();
  int const code = pthread_mutex_unlock(mutex);
  if (code != 0) Zel::Lock::throwFailedUnlock(mutex, code);
}

bool ActivityLock::owns_lock() const {
  return pthread_self() == static_cast<pthread_t>(lock_->mutex()->__data.__owner);
}

}  // namespace ZelBrelo

namespace Brelo::Platform {

Loco& loco() {
  static ZelBrelo::ActivityLock lock(
      Zel::ActivityImplFacility::activityManagerSm()->activityLock());
  return lock;
}

}  // namespace Brelo::Platform
