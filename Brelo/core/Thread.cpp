#include "Brelo/Thread.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <locale>
#include <sstream>

#include "Brelo/Assert.h"
#include "Zel/Ptr.h"

namespace Brelo {

namespace {

thread_local bool threadLocalSingletons_ = false;
thread_local bool threadLocalSingletonsLocked_ = false;
thread_local char nameCache[16] = {};

bool forkedChild = false;

[[maybe_unused]] bool const forkHandled = (Platform::setupHandler(), true);

}  // namespace

pid_t gettid() {
  return static_cast<pid_t>(syscall(SYS_gettid));
}

bool isMainThread() {
  return gettid() == getpid();
}

void useThreadLocalSingletons() {
  if (!threadLocalSingletons_ && threadLocalSingletonsLocked_) {
    BRELO_FAIL("Brelo",
               "Attempt to change threadLocalSingletons after a global singleton has already "
               "been created. Please call useThreadLocalSingletons() immediately after spawning "
               "your thread.");
  }
  threadLocalSingletons_ = true;
}

bool hasThreadLocalSingletons() {
  threadLocalSingletonsLocked_ = true;
  return threadLocalSingletons_;
}

char const* threadName() {
  if (nameCache[0] == '\0') {
    int const result = pthread_getname_np(pthread_self(), nameCache, sizeof nameCache);
    if (result != 0) BRELO_FAIL("Brelo", "pthread_getname_np() failed:{}", result);
  }
  return nameCache;
}

void threadNameIs(char const* name) {
  if (isMainThread()) return;
  int const result = pthread_setname_np(pthread_self(), name);
  if (result != 0) {
    BRELO_FAIL("Brelo", "pthread_setname_np() failed:{} for name:{}", result, name);
  }
  std::strncpy(nameCache, name, sizeof nameCache - 1);
}

std::string toThreadIdString(std::thread::id id) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << id;
  return text.str();
}

void threadSafePointerIs(bool on) {
  Zel::VFPtrInterface::threadSafePointersIs(on);
}

namespace Platform {

bool isForkedChild() {
  return forkedChild;
}

void forkedChildIs(bool child) {
  forkedChild = child;
}

void handleFork() {
  forkedChild = true;
}

void setupHandler() {
  if (pthread_atfork(nullptr, nullptr, handleFork) == 0) return;
  // The error is in the result, not in errno; the message has always read errno.
  std::cerr << "Brelo failed to register atfork handler, reason: " << std::strerror(errno)
            << std::endl;
  assert(false && "Failed to register Brelo atfork handler");
}

}  // namespace Platform

}  // namespace Brelo
