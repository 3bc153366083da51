// What keeps the calling thread's loop on libevent.

#include <event2/event_struct.h>

#include <cmath>
#include <exception>
#include <set>
#include <vector>

#include "Brelo/LibeventFactory.h"
#include "Brelo/platform/LibeventState.h"
#include "Brelo/platform/LibeventTurns.h"
#include "Brelo/platform/Pending.h"

namespace Brelo::Impl {

/// Tells the platform's events from those of others on the same base.
class LibeventPending {
 public:
  explicit LibeventPending(Platform::PendingList& list) : list_(list) {}

  void addAll() {
    // The base is locked meanwhile, and no exception may cross libevent.
    event_base_foreach_event(ev_base, collect, this);
    if (thrown_) std::rethrow_exception(thrown_);
    for (event const* const ev : events_)
      add(*ev);
    if (auto const* const turns = leTurns()) {
      turns->forEachAwaited([this](LibeventFdControl const& each) { watches_.insert(&each); });
    }
    for (LibeventFdControl const* const control : watches_)
      addWatch(*control);
  }

 private:
  static int collect(event_base const*, event const* ev, void* self) {
    auto* const pending = static_cast<LibeventPending*>(self);
    try {
      bool const ofLibevent = (ev->ev_evcallback.evcb_flags & EVLIST_INTERNAL) != 0;
      bool const ofLoop = leIsBound(*ev) || LibeventTurns::isOwn(*ev);
      if (!ofLibevent && !ofLoop) pending->events_.push_back(ev);
      return 0;
    } catch (...) {
      pending->thrown_ = std::current_exception();
      return -1;
    }
  }

  void add(event const& ev) {
    auto const callback = event_get_callback(&ev);
    void const* const owner = event_get_callback_arg(&ev);
    if (callback == LibeventFdControl::handleFdRead ||
        callback == LibeventFdControl::handleFdWrite) {
      watches_.insert(static_cast<LibeventFdControl const*>(owner));
    } else if (callback == LibeventTimerControl::handleTimeout) {
      addTimer(*static_cast<LibeventTimerControl const*>(owner));
    } else if (event_get_fd(&ev) >= 0) {
      auto const what = event_get_events(&ev);
      list_.addDescriptor(Platform::stranger, event_get_fd(&ev), (what & EV_READ) != 0,
                          (what & EV_WRITE) != 0);
    } else {
      list_.addTimer(Platform::stranger, remaining(ev));
    }
  }

  void addTimer(LibeventTimerControl const& timer) {
    double const left = timer.remainingTimeout();
    timer.handler_->timerPending(list_, std::isfinite(left) ? left : 0);
  }

  void addWatch(LibeventFdControl const& watch) {
    bool const reads = watch.reads_;
    bool const writes = watch.writes_ && event_pending(&watch.writeEvent_, EV_WRITE, nullptr) != 0;
    if (reads || writes) {
      list_.addDescriptor(watch.handler_->handlerName(), watch.getFd(), reads, writes);
    }
  }

  static double remaining(event const& ev) {
    timeval expiry;
    timeval now;
    if (event_pending(&ev, EV_TIMEOUT, &expiry) == 0) return 0;
    gettimeofday(&now, nullptr);
    timersub(&expiry, &now, &expiry);
    return static_cast<double>(expiry.tv_sec) + static_cast<double>(expiry.tv_usec) / 1e6;
  }

  Platform::PendingList& list_;
  std::vector<event const*> events_;
  std::set<LibeventFdControl const*> watches_;
  std::exception_ptr thrown_;
};

void lePending(Platform::PendingList& list) {
  leInit();
  LibeventPending(list).addAll();
}

}  // namespace Brelo::Impl
