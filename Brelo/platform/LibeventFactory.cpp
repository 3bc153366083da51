#include "Brelo/LibeventFactory.h"

#include <event2/thread.h>
#include <pthread.h>

#include <cerrno>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/MemTrack.h"
#include "Brelo/Thread.h"
#include "Brelo/platform/Backend.h"
#include "Brelo/platform/LibeventState.h"

namespace Brelo {

using Impl::libeventTrace;

thread_local event_base* ev_base = nullptr;
thread_local bool mainThread = false;

ModuleTrace const Impl::libeventTrace("BreloLibevent");

namespace {

thread_local unsigned liveControls = 0;
thread_local std::exception_ptr keptException;
thread_local std::uint64_t passes = 0;
thread_local bool inPass = false;
thread_local unsigned warnings = 0;
bool forkedChild = false;

/// Frees a thread's base at the thread's end. A key's destructors run after those of all
/// thread-local objects, so the thread's root has gone by then.
class ThreadExit {
 public:
  ThreadExit() { pthread_key_create(&key_, atExit); }
  void armed() { pthread_setspecific(key_, this); }

 private:
  static void atExit(void*) {
    if (liveControls == 0) leFree();
  }
  pthread_key_t key_;
};

/// The forking thread goes on in the child, where its base needs an epoll set of its own: the
/// present one is the parent's, too.
void inForkedChild() {
  forkedChild = true;
  if (ev_base != nullptr) leForkReinit();
}

/// What is done once in the process, before the first base is made.
struct LeInitializer {
  LeInitializer() {
    int const rc = evthread_use_pthreads();
    if (rc != 0) BRELO_FAIL("Brelo", "failed to set up libevent threading: {}", rc);
    event_set_fatal_callback(le_fatal_cb);
    event_set_log_callback(le_debug_cb);
  }
};

/// Bounds one run of the loop: breaks it `timeout` seconds after construction.
class EvLoopBreak {
 public:
  explicit EvLoopBreak(double timeout) {
    BRELO_TRACE(libeventTrace, 8, "EvLoopBreak", "{} timeout {}", DisplayPointer(this), timeout);
    event_assign(&event_, ev_base, -1, 0, handleBaseLoopBreak, this);
    eventPrioritySet(&event_, Platform::eventPriorityDefault);
    timeval const tv = toTimeval(timeout);
    if (event_add(&event_, &tv) != 0) throw std::bad_alloc();
  }
  EvLoopBreak(EvLoopBreak const&) = delete;
  EvLoopBreak& operator=(EvLoopBreak const&) = delete;
  ~EvLoopBreak() {
    BRELO_TRACE(libeventTrace, 9, "EvLoopBreak", "{}", DisplayPointer(this));
    event_del(&event_);
  }

 private:
  static void handleBaseLoopBreak(int, short, void* self) {
    BRELO_TRACE(libeventTrace, 8, "EvLoopBreak", "{}", DisplayPointer(self));
    event_base_loopbreak(ev_base);
    event_del(&static_cast<EvLoopBreak*>(self)->event_);
  }

  event event_;
};

void traceRefusal() {
  BRELO_TRACE(libeventTrace, 0, "Brelo", "the loop cannot be entered on base:{}",
              DisplayPointer(ev_base));
}

void eventLoopTimeout(double timeout) {
  BRELO_TRACE(libeventTrace, 5, "Brelo", "timeout {}", timeout);
  Impl::leDispatchFor(timeout);
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

void Impl::leKeepException() {
  keptException = std::current_exception();
  event_base_loopbreak(ev_base);
}

unsigned Impl::leWarnings() {
  return warnings;
}

std::uint64_t Impl::lePasses() {
  return passes;
}

std::uint64_t Impl::lePass() {
  return inPass ? passes : 0;
}

// One pass of the loop:
//
// 1. Reads that a handler has turned off are taken out of the base, some of them one pass later
//    (see LibeventFdControl::turnReadsOff).
// 2. libevent looks at the descriptors: without waiting if a timer is due or such reads are left,
//    else until the first timer or descriptor is. Timers that are due and descriptors that are
//    ready become active, each at its priority.
// 3. Everything active at `eventPriorityStrictHigh` is served: the master timers of the schedulers'
//    wheels. Their handlers only queue tasks.
// 4. After one more look, what is active at `eventPriorityDefault` is served: callbacks, timers,
//    descriptors, the loop's bound. A scheduler's run is one of these callbacks.
//
// An exception that a handler lets pass is kept, the loop breaks, and the loop's entry throws it.
//
// Not ordered: events of one priority among each other, and the two directions of one descriptor. A
// callback asked for during a pass runs in a later one.
void Impl::leDispatch() {
  if (inPass) return traceRefusal();
  int result;
  int error;
  do {
    int const mode = leSettleReads(false) ? EVLOOP_ONCE | EVLOOP_NONBLOCK : EVLOOP_ONCE;
    ++passes;
    inPass = true;
    errno = 0;
    result = event_base_loop(ev_base, mode);
    error = errno;
    inPass = false;
  } while (result == 0 && !event_base_got_break(ev_base) && !event_base_got_exit(ev_base));
  leSettleReads(true);
  if (result < 0) {
    if (error == 0) return traceRefusal();
    throw std::system_error(error, std::generic_category(), "failed to wait for descriptors");
  }
  if (keptException) std::rethrow_exception(std::exchange(keptException, nullptr));
}

void Impl::leDispatchFor(double timeout) {
  EvLoopBreak const loopBreak(timeout);
  leDispatch();
}

event_base* leCreateBase() {
  static LeInitializer const initializer;
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
  static ThreadExit threadExit;
  threadExit.armed();
  [[maybe_unused]] static int const forkHandled = pthread_atfork(nullptr, nullptr, inForkedChild);
  ev_base = base;
  setMainThread();
}

void leInit() {
  if (ev_base == nullptr) leRegisterBase(leCreateBase());
}

void leFree() {
  if (ev_base == nullptr) return;
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

void doLeEventLoop() {
  leInit();
  if (leFastForward()) Impl::leSkipFirstWait();
  Impl::leDispatch();
}

void doLeEventLoop(double timeout) {
  BRELO_TRACE(libeventTrace, 5, "Brelo", "timeout {}", timeout);
  leInit();
  if (!leFastForward()) return eventLoopTimeout(timeout);
  double const end = time() + timeout;
  do {
    Impl::eventLoopFastForwardToFirstTimer(end - time());
  } while (end > time());
}

void doLeEventLoopInWaitfor(double maxTimeout) {
  BRELO_TRACE(libeventTrace, 5, "Brelo", "maxTimeout {}", maxTimeout);
  leInit();
  if (!leFastForward()) return eventLoopTimeout(maxTimeout);
  Impl::eventLoopFastForwardToFirstTimer(maxTimeout);
}

Platform::Backend const& Platform::libeventBackend() {
  static constexpr Backend row = {BackendKind::libevent, getLeTimerControl, getLeCallbackControl,
                                  getLeFdControl,        doLeEventLoop,     doLeEventLoop,
                                  doLeEventLoopInWaitfor};
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
