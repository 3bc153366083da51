#include "Brelo/LibeventFactory.h"

#include <event2/thread.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/MemTrack.h"
#include "Brelo/Thread.h"
#include "Brelo/platform/Backend.h"
#include "Brelo/platform/LibeventState.h"
#include "Brelo/platform/LibeventTurns.h"

namespace Brelo {

using Impl::libeventTrace;

thread_local event_base* ev_base = nullptr;
thread_local bool mainThread = false;

ModuleTrace const Impl::libeventTrace("BreloLibevent");

namespace {

thread_local Impl::LibeventTurns* turns = nullptr;
thread_local unsigned liveControls = 0;
thread_local unsigned warnings = 0;
std::atomic<bool> hasBases{false};  // some thread has had one
bool forkedChild = false;           // of a process that had them

/// Frees a thread's base at the thread's end. A key's destructors run after those of all
/// thread-local objects, so the thread's root has gone by then.
class ThreadExit {
 public:
  ThreadExit() { pthread_key_create(&key_, atExit); }
  void armed() { pthread_setspecific(key_, this); }

 private:
  static void atExit(void*) {
    delete std::exchange(turns, nullptr);
    if (liveControls == 0) leFree();
  }
  pthread_key_t key_;
};

ThreadExit threadExit;

/// What is done once in the process, before the first base is made.
struct LeInitializer {
  LeInitializer() {
    int const rc = evthread_use_pthreads();
    if (rc != 0) BRELO_FAIL("Brelo", "failed to set up libevent threading: {}", rc);
    event_set_fatal_callback(le_fatal_cb);
    event_set_log_callback(le_debug_cb);
  }
};

// Held over forks: a child must not find that begun by a thread which it does not have.
std::mutex initLock;

/// The forking thread goes on in the child, where its base needs an epoll set of its own: the
/// present one is the parent's, too.
void inForkedChild() {
  initLock.unlock();
  if (!hasBases) return;
  forkedChild = true;
  if (ev_base != nullptr) leForkReinit();
}

[[maybe_unused]] int const forkHandled =
    pthread_atfork([] { initLock.lock(); }, [] { initLock.unlock(); }, inForkedChild);

/// Without memory for it there is none.
Impl::LibeventTurns* makeTurns(event_base* base) {
  try {
    return new Impl::LibeventTurns(base);
  } catch (std::bad_alloc const&) {
    return nullptr;
  }
}

}  // namespace

void Impl::leControlAdded() {
  ++liveControls;
}

void Impl::leControlRemoved(event_base const* base) {
  // A root may outlive its thread and end on another one, whose count is not its own.
  if (base == ev_base && liveControls > 0) --liveControls;
}

bool Impl::leMayTouch(event const& ev) {
  return !forkedChild || event_get_base(&ev) == ev_base;
}

unsigned Impl::leWarnings() {
  return warnings;
}

Impl::LibeventTurns* Impl::leTurns() {
  return turns;
}

event_base* leCreateBase() {
  {
    std::lock_guard<std::mutex> const guard(initLock);
    static LeInitializer const initializer;
  }
  event_config* const config = event_config_new();
  if (config == nullptr) BRELO_FAIL("Brelo", "Failed to create event_base");
  event_config_require_features(config, EV_FEATURE_ET);
  // Timers of libevent 2.1 are up to 4 ms early without the first of these flags, and up to the
  // length of a pass early without the second.
  event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
  event_config_set_flag(config, EVENT_BASE_FLAG_NO_CACHE_TIME);
  event_base* const base = event_base_new_with_config(config);
  event_config_free(config);
  if (base != nullptr && event_base_priority_init(base, 2) == 0) return base;
  if (base != nullptr) event_base_free(base);
  BRELO_FAIL("Brelo", "Failed to create event_base");
}

void leRegisterBase(event_base* base) {
  if (ev_base != nullptr && ev_base != base) {
    BRELO_FAIL("Brelo", "Tried to register a base:{} but a thread_local  base already exists: {}",
               DisplayPointer(base), DisplayPointer(ev_base));
  }
  threadExit.armed();
  hasBases = true;
  if (ev_base == nullptr) turns = makeTurns(base);
  ev_base = base;
  setMainThread();
}

void leInit() {
  if (ev_base == nullptr) leRegisterBase(leCreateBase());
}

void leFree() {
  if (ev_base == nullptr) return;
  delete std::exchange(turns, nullptr);
  event_base_free(ev_base);
  ev_base = nullptr;
  liveControls = 0;
}

bool leInitialized() {
  return ev_base != nullptr;
}

void leForkReinit() {
  if (ev_base == nullptr) {
    leInit();
  } else {
    if (turns != nullptr) turns->renewInForkedChild();
    event_reinit(ev_base);
  }
}

void setMainThread() {
  mainThread = isMainThread();
}

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler) {
  return getLeTimerControl(handler, Platform::eventPriorityDefault);
}

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler,
                                                          Platform::EventPriority priority) {
  return makeTracked<LibeventTimerControl>(handler, priority);
}

std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(
    Platform::CallbackHandler* handler) {
  return makeTracked<LibeventCallbackControl>(handler);
}

std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler) {
  return makeTracked<LibeventFdControl>(handler);
}

Platform::Backend const& Platform::libeventBackend() {
  static constexpr Backend row = {BackendKind::libevent,  getLeTimerControl, getLeCallbackControl,
                                  getLeFdControl,         doLeEventLoop,     doLeEventLoop,
                                  doLeEventLoopInWaitfor, Impl::leStop,      Impl::lePending,
                                  Impl::leWaitsObservedIs};
  return row;
}

void le_debug_cb(int severity, char const* message) {
  static constexpr unsigned short levels[] = {9, 5, 1, 0};  // debug, message, warning, error
  if (severity < 0 || severity > 3) {
    BRELO_FAIL("Brelo", "invalid libevent severity:{} msg:{}", severity, message);
  }
  if (severity == 2) ++warnings;
  int const error = errno;
  BRELO_TRACE(libeventTrace, levels[severity], "Brelo", "{}", message);
  errno = error;
}

void le_fatal_cb(int err) {
  BRELO_FAIL("Brelo", "libevent fatal error:{}", err);
}

}  // namespace Brelo
