#pragma once

#include <event2/event.h>
#include <event2/event_struct.h>

#include <cstdint>

#include "Brelo/Export.h"
#include "Brelo/Platform.h"
#include "Zel/List.h"

/// @file
/// The platform's controls over libevent. Made through `Platform::get...Control` or the
/// `getLe...Control` functions of LibeventFactory.h; each belongs to the thread that made it and
/// to that thread's event base, and `struct event` lies inside it, so that a control is one
/// allocation. No exception crosses libevent: one that a handler lets pass breaks the loop, and
/// the loop's entry throws it on.

namespace Brelo {

namespace Impl {
bool leSettleReads(bool all);  ///< for the loop: takes out watches of reads that are off
class LibeventPending;
class LibeventTurns;
}  // namespace Impl

/// Sets the event's priority after `event_assign`, which resets it. The event must not be active.
BRELO_EXPORT void eventPrioritySet(event* ev, Platform::EventPriority priority);

/// Whole seconds and microseconds, truncated; zero for a negative value, the largest time that
/// can still be added to a clock for one beyond it.
BRELO_EXPORT timeval toTimeval(double seconds);

/// A timer event of its own.
class BRELO_EXPORT LibeventTimerControl : public Platform::TimerControl {
 public:
  /// Gives the calling thread a base, if it has none.
  LibeventTimerControl(Platform::TimeoutHandler* handler, Platform::EventPriority priority);
  ~LibeventTimerControl() override;

  /// The time is cut to whole microseconds. Where libevent has no memory for one more timer, that
  /// is traced at level 0 and the timer stays idle.
  void setTimeout(double seconds) override;
  void delTimeout() override;
  double remainingTimeout() const override;

 private:
  friend class Impl::LibeventPending;

  static void handleTimeout(int fd, short what, void* self);
  void handler();

  Platform::EventPriority eventPriority_;
  event event_;

 protected:
  bool armed() const { return event_pending(&event_, EV_TIMEOUT, nullptr) != 0; }  ///< not idle

  bool* ended_ = nullptr;  ///< amid the handler: set when the control ends there
};

/// A callback is its own timer's handler; a request is a timeout of zero.
class BRELO_EXPORT LibeventCallbackControl : public Platform::CallbackControl,
                                             Platform::TimeoutHandler,
                                             LibeventTimerControl {
 public:
  /// Runs at `eventPriorityDefault`.
  explicit LibeventCallbackControl(Platform::CallbackHandler* handler);
  ~LibeventCallbackControl() override;

  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;

 private:
  void timeout() override;
  void timerPending(Platform::PendingList& list, double remaining) const override;
  static void callHandler(Platform::CallbackHandler& handler, bool const& ended);
};

/// `clearEvents()` keeps the descriptor and both wishes, so that `setFd` brings the watches back.
/// Reads that are turned off and on again, within a pass or in the one after, cost no system call
/// as a rule, and one where several clients take turns, or none (`setReadsAgain`) where callbacks
/// keep the loop busy. A direction that the kernel refuses to watch is off, and `std::system_error`
/// thrown; where there is no memory for it, `std::bad_alloc`. After such a failure of `setFd` there
/// is no descriptor, and the wishes stay.
class BRELO_EXPORT LibeventFdControl : public Platform::FdControl {
 public:
  /// Gives the calling thread a base, if it has none.
  explicit LibeventFdControl(Platform::FdEventHandler* handler);
  ~LibeventFdControl() override;

  void setReads(bool on) override;
  void setReadsAgain(unsigned passes) override;
  void setWrites(bool on) override;
  /// -1 is `delFd()`. Another number that is not open stops the process on the C library's
  /// assertion.
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override { return fd_; }
  void clearEvents() override;

 private:
  friend bool Impl::leSettleReads(bool all);
  friend class Impl::LibeventPending;
  friend class Impl::LibeventTurns;

  static void handleFdRead(int fd, short what, void* self);
  static void handleFdWrite(int fd, short what, void* self);
  void watch(event* ev, short flags, event_callback_fn callback);
  static void readyAtNextPass(event* ev);
  void turnReadsOn(unsigned leisure = 0);
  void turnReadsOff();
  bool settleReads(bool now);
  void withdrawReads();
  void takeTurn();
  void watchAnew() noexcept;
  template <class Notify>
  bool notify(Notify notify);

  int fd_ = -1;
  bool* ended_ = nullptr;  // as in LibeventTimerControl
  bool reads_ = true;
  bool writes_ = false;
  bool pollable_ = true;  // as far as is known of `fd_`
  event readEvent_;
  event writeEvent_;
  bool awaited_ = false;          // as a member of `turns_`: its reads are on
  bool armed_ = false;            // and the kernel will tell of it
  bool byEdge_ = false;           // the kernel tells whenever something comes
  bool unread_ = false;           // `armed_`, but for what was there before
  std::uint8_t edgesBarred_ = 0;  // so many times more not by edges
  Impl::LibeventTurns* turns_ = nullptr;
  // Without turns: reads are off, their event is not. With turns: is told in the present pass.
  Zel::ListNode<LibeventFdControl> listed_{this};
  std::uint64_t readsOffPass_ = 0;
  std::uint64_t readsOffTurn_ = 0;  // among all that have turned them off
  bool impatient_ = false;          // the last time it was no use to linger
};

}  // namespace Brelo
