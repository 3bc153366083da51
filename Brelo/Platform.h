#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

#include "Brelo/Export.h"
#include "Brelo/Formatter.h"
#include "Brelo/Time.h"

/// The event platform: a one-shot timer, a deferred callback and a descriptor watch, each a pair
/// of a handler, which the client implements, and a control, which the client holds.
///
/// A handler is referred to by a plain pointer and must outlive its control. A control belongs to
/// the thread that made it, whose loop (`doEventLoop`) runs the handlers. Which backend a control
/// has is settled when it is made: libevent on a thread that chose `useThreadLocalSingletons()`,
/// the host runtime on any other. Times are seconds as a double, on the clock of `Brelo::time()`.
namespace Brelo::Platform {

/// The order in which libevent serves what is ready at the same time.
enum EventPriority : std::uint8_t {
  eventPriorityStrictHigh = 0,  ///< served before anything of the other priority
  eventPriorityDefault = 1,     ///< served when nothing of the other priority is ready
};

/// The name of the value. A value that is neither of the two must not occur.
BRELO_EXPORT std::string toString(EventPriority priority);
/// The fmt form: `toString(priority)`.
BRELO_EXPORT fmt::format_context::iterator formatValue(EventPriority priority,
                                                       fmt::format_context& context);

class PendingList;

/// Who a timer tells. Must outlive the timer's control.
class BRELO_EXPORT TimeoutHandler {
 public:
  virtual ~TimeoutHandler() = default;
  /// The time is up; the timer is idle and may be armed again from here.
  virtual void timeout() = 0;
  /// Called inside the catch block when `timeout()` has thrown, and may rethrow to look at it.
  /// True means dealt with, the loop carries on; false lets the exception rise to the caller of
  /// the loop entry, which can be entered again.
  virtual bool handleTimeoutException() { return false; }
  /// What `pendingRender` calls it: its type, unless overridden.
  virtual std::string handlerName() const;
  /// For the library: adds what waits for this timer, which is armed. Unless overridden that is the
  /// handler.
  virtual void timerPending(PendingList& list, double remaining) const;
};

/// Who a callback control calls. Must outlive the control.
class BRELO_EXPORT CallbackHandler {
 public:
  virtual ~CallbackHandler() = default;
  /// The requested call; another one may be requested from here.
  virtual void callback() = 0;
  /// For what `callback()` throws; see `TimeoutHandler::handleTimeoutException`.
  virtual bool handleCallbackException() { return false; }
  /// See `TimeoutHandler::handlerName`.
  virtual std::string handlerName() const;
};

/// Who a descriptor watch tells. Must outlive the watch's control.
class BRELO_EXPORT FdEventHandler {
 public:
  virtual ~FdEventHandler() = default;
  /// `fd` can be read, or an error or the end is there to be read. Comes again as long as it holds.
  virtual void readFdEvent(int fd) = 0;
  /// `fd` can be written to, or a write would fail at once. The watch is off again by now.
  virtual void writeFdEvent(int fd) = 0;
  /// For what the two above throw; see `TimeoutHandler::handleTimeoutException`.
  virtual bool handleFdException(int fd);
  /// See `TimeoutHandler::handlerName`.
  virtual std::string handlerName() const;
};

/// A one-shot timer; idle until armed, and idle again before its handler runs.
class BRELO_EXPORT TimerControl {
 public:
  /// Idle at first. Clients come by one through `getTimerControl`.
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
  TimeoutHandler* handler_;  ///< not owned
};

/// A deferred call: one `callback()` for a request, as soon as the loop can run it.
class BRELO_EXPORT CallbackControl {
 public:
  /// Idle at first. Clients come by one through `getCallbackControl`.
  explicit CallbackControl(CallbackHandler* handler) : handler_(handler) {}
  CallbackControl(CallbackControl const&) = delete;
  CallbackControl& operator=(CallbackControl const&) = delete;
  virtual ~CallbackControl() = default;

  /// A second request before the run changes nothing. From the handler itself: the next pass.
  virtual void requestCallback() = 0;
  /// Takes the request back; harmless without one.
  virtual void cancelCallback() = 0;
  /// From the request until the run or the cancel.
  virtual bool pendingCallback() const = 0;

 protected:
  CallbackHandler* handler_;  ///< not owned
};

/// A watch on one descriptor. A read watch stays on until turned off; a write watch is one-shot:
/// after one `writeFdEvent` it is off until `setWrites(true)`. A file that cannot be polled is
/// always ready. The descriptor stays the client's, and is to be taken off before it is closed.
class BRELO_EXPORT FdControl {
 public:
  /// Idle at first. Clients come by one through `getFdControl`.
  explicit FdControl(FdEventHandler* handler) : handler_(handler) {}
  FdControl(FdControl const&) = delete;
  FdControl& operator=(FdControl const&) = delete;
  virtual ~FdControl() = default;

  /// Turns a direction on or off; without a descriptor the wish waits for `setFd`. Writes
  /// are off at first. Reads are on with libevent and off with the host. Throws
  /// `std::system_error` if the kernel refuses; the direction is then off, and the other one stays.
  /// @{
  virtual void setReads(bool on) = 0;
  virtual void setWrites(bool on) = 0;
  /// @}
  /// `setReads(true)` of a client that turned them off in `readFdEvent`, has read since, as a rule
  /// all there was, and has others to serve first. Of what was left unread the handler hears less
  /// than `passes` passes of the loop later than otherwise, and before the loop waits; of what
  /// comes from now on by the next one. With enough of them this costs no system call as a rule.
  /// Unless overridden it is `setReads(true)`.
  virtual void setReadsAgain([[maybe_unused]] unsigned passes) { setReads(true); }
  /// Watches `fd` in the directions wished for and puts it in non-blocking mode; -1 is `delFd()`.
  /// Another number that is not open is a failure of the backend's own kind.
  virtual void setFd(int fd) = 0;
  /// Stops watching and forgets the descriptor; the wishes stay.
  virtual void delFd() = 0;
  /// The descriptor, or -1.
  virtual int getFd() const = 0;
  /// Stops watching. Whether `getFd()` still gives the descriptor is up to the backend.
  virtual void clearEvents() = 0;

 protected:
  FdEventHandler* handler_;  ///< not owned
};

/// A new control on the calling thread's backend. The host backend has no priorities and passes
/// over the argument; libevent uses `eventPriorityDefault` where none is given.
/// @{
BRELO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler);
BRELO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                           EventPriority priority);
BRELO_EXPORT std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler);
BRELO_EXPORT std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler);
/// @}

/// Runs the calling thread's loop. Without a bound it returns when nothing is left to wait for;
/// with one, after that many seconds; not-a-number is an assertion. An exception that a handler
/// lets pass comes out of here with the loop in order.
/// @{
BRELO_EXPORT void doEventLoop();
BRELO_EXPORT void doEventLoop(double seconds);
/// @}

/// The entry of the loop that is innermost on the calling thread at this moment, whichever of these
/// it is, returns after its present pass; outside of the loop the next one after its first, which
/// does not wait. From a handler or a task, not from another thread. An entry that an exception
/// leaves before has not returned: it counts for the next one.
BRELO_EXPORT void stopEventLoop();

/// Writes what keeps the calling thread's `doEventLoop()` from returning, a line for each: timers
/// that are armed, the first to expire first, those of timer tasks among them; callbacks that have
/// been requested; descriptors that are watched. With the task's name in quotes or the handler's
/// type (`handlerName()`), and the time left:
///
///     callback "main" due
///     timer "heartbeat" in 0.250 s
///     descriptor 7 "connection" reads writes
///
/// What others than the platform's controls wait for on the same loop is named as such. A wheel
/// whose timers have been stopped may keep the loop as long as the first of them would have:
///
///     timer of an idle wheel in 1.240 s
BRELO_EXPORT void pendingRender(std::ostream& stream);
/// How many things that is, idle wheels not counted.
BRELO_EXPORT std::size_t pendingCount();

/// One step for a caller that polls for a condition: at most `maxTimeout` seconds. Under
/// fast-forward a step on libevent ends at the first timer; on the host it runs its whole bound.
BRELO_EXPORT void doEventLoopInWaitfor(double maxTimeout);

/// Virtual time of the host runtime: with it on, its loop does not sleep until the next timer but
/// moves the clock there. Not for a thread with singletons of its own, where it is an assertion:
/// see `setLeFastForward`.
/// @{
BRELO_EXPORT void setFastForward(bool on);
BRELO_EXPORT bool fastForward();
/// @}

/// `notifier` is called at each change of `setFastForward`, on the thread that makes it, for
/// good. A second registration of the same one changes nothing.
BRELO_EXPORT void registerFastForwardChangeNotifier(void (*notifier)());

/// A switch that the library keeps for its clients and does not read; starts true.
/// @{
BRELO_EXPORT void refCountingEnabledIs(bool on);
BRELO_EXPORT bool refCountingEnabled();
/// @}

}  // namespace Brelo::Platform

namespace fmt {

/// What `formatValue` writes.
template <>
struct formatter<Brelo::Platform::EventPriority>
    : Brelo::Impl::Formatter<Brelo::Platform::EventPriority> {};

}  // namespace fmt
