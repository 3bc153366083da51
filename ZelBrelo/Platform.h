#pragma once

#include <cstdint>
#include <memory>

#include "Brelo/Export.h"
#include "Brelo/Platform.h"
#include "Zel/Activity.h"
#include "Zel/Clock.h"
#include "Zel/FileDescriptor.h"

/// The platform's controls inside the host runtime, whose objects tell a notifiee when an
/// attribute changes. Made through `Brelo::Platform::get...Control`; used on the thread that runs
/// the host's activity loop.
///
/// A notifiee is a host object and may outlive its control: the control's destructor makes it an
/// orphan, which passes over what the host still delivers.

namespace ZelBrelo {

/// A timer on the host's clock. A NaN is an assertion.
class BRELO_EXPORT ClockTimer : public Brelo::Platform::TimerControl {
 public:
  /// Neither is null; the handler outlives the control.
  ClockTimer(Brelo::Platform::TimeoutHandler* handler, Zel::Ptr<Zel::Clock> clock);
  ~ClockTimer() override;

  void setTimeout(double seconds) override;
  void delTimeout() override;
  double remainingTimeout() const override;
  /// Offers the exception in flight to the handler. False: it goes on rising.
  virtual bool onNotificationException();

 protected:
  class Notifiee;

  Zel::Ptr<Zel::Clock> clock_;   ///< what the notifiee hears of
  Zel::Ptr<Notifiee> notifiee_;  ///< its `timeMin` is the timer
};

/// A callback is its own timer's handler; a request is a time long past.
class BRELO_EXPORT Callback : public Brelo::Platform::CallbackControl,
                              Brelo::Platform::TimeoutHandler,
                              ClockTimer {
 public:
  /// Neither is null; the handler outlives the control.
  Callback(Brelo::Platform::CallbackHandler* handler, Zel::Ptr<Zel::Clock> clock);
  ~Callback() override;

  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;

 private:
  void timeout() override;
  bool onNotificationException() override;
  void timerPending(Brelo::Platform::PendingList& list, double remaining) const override;
};

/// `clearEvents()` forgets the descriptor; the wishes for reads and writes stay. A descriptor that
/// is not open makes `setFd` throw `std::system_error`.
class BRELO_EXPORT FileDescriptor : public Brelo::Platform::FdControl {
 public:
  /// Neither is null; the handler outlives the control, which has `hostFd` for itself.
  FileDescriptor(Zel::Ptr<Zel::FileDescriptor> hostFd, Brelo::Platform::FdEventHandler* handler);
  ~FileDescriptor() override;

  void setReads(bool on) override;
  void setReadsAgain(unsigned passes) override;
  void setWrites(bool on) override;
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override;
  void clearEvents() override;

 private:
  class Notifiee;

  Zel::Ptr<Zel::FileDescriptor> hostFd_;
  Zel::Ptr<Notifiee> notifiee_;
  std::uint32_t readableCount_ = 0;
  std::uint32_t writableCount_ = 0;
};

/// A control for the handler, not armed; counted as one allocation of its type.
BRELO_EXPORT std::shared_ptr<Brelo::Platform::TimerControl> getTimerControl(
    Brelo::Platform::TimeoutHandler* handler);
/// The same for callbacks.
BRELO_EXPORT std::shared_ptr<Brelo::Platform::CallbackControl> getCallbackControl(
    Brelo::Platform::CallbackHandler* handler);
/// The same for descriptors, with a host descriptor of its own.
BRELO_EXPORT std::shared_ptr<Brelo::Platform::FdControl> getFdControl(
    Brelo::Platform::FdEventHandler* handler);

}  // namespace ZelBrelo
