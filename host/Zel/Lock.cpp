#include "Zel/Lock.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <locale>
#include <sstream>
#include <string>
#include <system_error>
#include <type_traits>

namespace Zel {
namespace {

[[noreturn]] void throwFailed(char const* operation, pthread_mutex_t const* mutex, int code) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << "failed to " << operation << " the mutex at " << static_cast<void const*>(mutex);
  throw std::system_error(code, std::generic_category(), text.str());
}

void makeErrorChecking(pthread_mutex_t& mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

}  // namespace

Lock::Lock() {
  static_assert(std::is_standard_layout_v<Lock>, "the mutex is at the lock's own address");
  makeErrorChecking(mutex_);
}

Lock::~Lock() {
  pthread_mutex_destroy(&mutex_);
}

bool Lock::lock() {
  int const error = pthread_mutex_lock(&mutex_);
  if (error != 0 && error != EDEADLK) throwFailedLock(&mutex_, error);
  return error == 0;
}

void Lock::unlock() {
  if (int const error = pthread_mutex_unlock(&mutex_); error != 0) {
    throwFailedUnlock(&mutex_, error);
  }
}

// The C library has no call that tells the next two, but its mutex does: the lock word is 2
// while threads may sleep on it, and the owner is a kernel thread id.
bool Lock::contended() const {
  return __atomic_load_n(&mutex_.__data.__lock, __ATOMIC_RELAXED) > 1;
}

bool Lock::heldByThisThread() const {
  return __atomic_load_n(&mutex_.__data.__owner, __ATOMIC_RELAXED) == gettid();
}

void Lock::forkedIs(bool held) {
  // The owner noted in the mutex is a thread of the parent, so it cannot be unlocked here.
  makeErrorChecking(mutex_);
  if (held) static_cast<void>(lock());
}

void Lock::throwFailedLock(pthread_mutex_t const* mutex, int code) {
  throwFailed("lock", mutex, code);
}

void Lock::throwFailedUnlock(pthread_mutex_t const* mutex, int code) {
  throwFailed("unlock", mutex, code);
}

}  // namespace Zel
