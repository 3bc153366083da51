#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <string>

/// The event platform: a one-shot timer, a deferred callback and a descriptor watch, each a pair
/// of a handler, which the client implements, and a control, which the client holds.
///
/// A handler is referred to by a plain pointer and must outlive its control. A control belongs to
/// the thread that made it, whose loop (`doEventLoop`) runs the handlers. Which backend a control
/// has is settled when it is made: libevent on a thread that chose `useThreadLocalSingletons()`,
/// the host runtime on any other. Times are seconds as a double, on the clock of `Brelo::time()`.

namespace Brelo::Platform {

enum EventPriority : std::uint8_t {
  eventPriorityStrictHigh = 0,  ///< served before anything of the other priority
  eventPriorityDefault = 1,
};

/// The name of the value. A value that is neither of the two must not occur.
std::string toString(EventPriority priority);

/// Each handler's `handle...Exception` is called inside the catch block when the operation has
/// thrown, and may rethrow to look at it. True means dealt with, the loop carries on; false lets
/// the exception rise to the caller of the loop entry, which can be entered again.
class TimeoutHandler {
 public:
  virtual ~TimeoutHandler() = default;
  virtual void timeout() = 0;
  virtual bool handleTimeoutException() { return false; }
};

class CallbackHandler {
 public:
  virtual ~CallbackHandler() = default;
  virtual void callback() = 0;
  virtual bool handleCallbackException() { return false; }
};

class FdEventHandler {
 public:
  virtual ~FdEventHandler() = default;
  virtual void readFdEvent(int fd) = 0;
  virtual void writeFdEvent(int fd) = 0;
  virtual bool handleFdException(int fd);
};

/// A one-shot timer; idle until armed, and idle again before its handler runs.
class TimerControl {
 public:
  explicit TimerControl(TimeoutHandler* handler) : handler_(handler) {}
  TimerControl(TimerControl const&) = delete;
  TimerControl& operator=(TimerControl const&) = delete;
  virtual ~TimerControl() = default;

  /// Arms, replacing any earlier arming. Zero or less fires at the next pass of the loop, never
  /// inside the call; positive infinity disarms; a value beyond the backend's range is its
  /// largest; not-a-number is an assertion. May be called from the timer's own handler.
  virtual void setTimeout(double seconds) = 0;
  /// Disarms; harmless on an idle timer.
  virtual void delTimeout() = 0;
  /// Seconds to the expiry: 0.0 when it has passed and the handler has not run yet, positive
  /// infinity when the timer is idle.
  virtual double remainingTimeout() const = 0;

 protected:
  TimeoutHandler* handler_;
};

/// A deferred call: one `callback()` for a request, as soon as the loop can run it.
class CallbackControl {
 public:
  explicit CallbackControl(CallbackHandler* handler) : handler_(handler) {}
  CallbackControl(CallbackControl const&) = delete;
  CallbackControl& operator=(CallbackControl const&) = delete;
  virtual ~CallbackControl() = default;

  /// A second request before the run changes nothing. From the handler itself: the next pass.
  virtual void requestCallback() = 0;
  virtual void cancelCallback() = 0;
  /// From the request until the run or the cancel.
  virtual bool pendingCallback() const = 0;

 protected:
  CallbackHandler* handler_;
};

/// A watch on one descriptor. A read watch stays on until turned off; a write watch is one-shot:
/// after one `writeFdEvent` it is off until `setWrites(true)`. A file that cannot be polled is
/// always ready. The descriptor stays the client's, and is to be taken off before it is closed.
class FdControl {
 public:
  explicit FdControl(FdEventHandler* handler) : handler_(handler) {}
  FdControl(FdControl const&) = delete;
  FdControl& operator=(FdControl const&) = delete;
  virtual ~FdControl() = default;

  /// Turn a direction on or off; without a descriptor the wish waits for `setFd`.
  virtual void setReads(bool on) = 0;
  virtual void setWrites(bool on) = 0;
  /// Watches `fd` in the directions wished for and puts it in non-blocking mode. A descriptor
  /// that is not open is a failure of the backend's own kind.
  virtual void setFd(int fd) = 0;
  /// Stops watching and forgets the descriptor; the wishes stay.
  virtual void delFd() = 0;
  /// The descriptor, or -1.
  virtual int getFd() const = 0;
  /// Stops watching. Whether `getFd()` still gives the descriptor is up to the backend.
  virtual void clearEvents() = 0;

 protected:
  FdEventHandler* handler_;
};

/// Makers of controls on the calling thread's backend. The host backend has no priorities and
/// passes over the argument; libevent uses `eventPriorityDefault` where none is given.
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler);
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler, EventPriority priority);
std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler);
std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler);

/// Runs the calling thread's loop. Without a bound it returns when nothing is left to wait for;
/// with one, after that many seconds. An exception that a handler lets pass comes out of here
/// with the loop in order.
void doEventLoop();
void doEventLoop(double seconds);
/// One step for a caller that polls for a condition: at most `maxTimeout` seconds, and under
/// virtual time not beyond the first timer.
void doEventLoopInWaitfor(double maxTimeout);

/// Virtual time of the host runtime: with it on, its loop does not sleep until the next timer but
/// moves the clock there. Not for a thread with singletons of its own, where it is an assertion:
/// see `setLeFastForward`. A change calls every notifier registered here, which stay for good.
void setFastForward(bool on);
bool fastForward();
void registerFastForwardChangeNotifier(void (*notifier)());

/// A switch that the library keeps for its clients and does not read; starts true.
void refCountingEnabledIs(bool on);
bool refCountingEnabled();

}  // namespace Brelo::Platform

namespace Brelo {

/// Seconds since the Unix epoch from the host's clock, which never steps; on every thread and
/// on either backend.
double time();

}  // namespace Brelo

template <>
struct fmt::formatter<Brelo::Platform::EventPriority> {
  constexpr auto parse(format_parse_context& context) { return context.begin(); }
  auto format(Brelo::Platform::EventPriority priority, format_context& context) const
      -> format_context::iterator;
};
