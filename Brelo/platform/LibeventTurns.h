#pragma once

#include <event2/event.h>
#include <event2/event_struct.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Zel/AskLater.h"
#include "Zel/List.h"

namespace Brelo {
class LibeventFdControl;
}

namespace Brelo::Impl {

/// Reads of clients that take turns, in an epoll set beneath that of their base. libevent changes a
/// watch by two system calls for each request of such a client: one to turn it off, one to turn it
/// on again. In this set each is told once and then sleeps until it is awaited again, which is one,
/// or hears of what comes only, which is none.
///
/// The base looks at the set at each of its passes, unless callbacks ask for the next one in each
/// of many: they look at it themselves then, as they end, which spares the base an event in each
/// pass.
///
/// One for each base, made with it and for its thread, at the end of which it lets its members go.
class LibeventTurns {
 public:
  /// Without a set where the kernel gives none: nobody joins then.
  explicit LibeventTurns(event_base* base) noexcept;
  LibeventTurns(LibeventTurns const&) = delete;
  LibeventTurns& operator=(LibeventTurns const&) = delete;
  ~LibeventTurns();

  /// Takes the control in with its present descriptor, not yet awaited. False if it has to be
  /// watched by the base: there is no set or no memory, or the kernel takes it not, or not twice.
  bool join(LibeventFdControl& control) noexcept;
  void leave(LibeventFdControl& control) noexcept;

  /// The next look tells the member if it is readable then, or one of the next `passes`, as
  /// `FdControl::setReadsAgain` has it. False if its descriptor has been closed: it has left then.
  bool await(LibeventFdControl& control, unsigned passes = 0) noexcept;
  /// It is not told any more.
  void awaitNoMore(LibeventFdControl& control) noexcept;

  /// A callback has ended, and whether another one comes in the next pass of the loop is known. Or
  /// it is known that none does.
  /// @{
  void callbackEnded(bool anotherIsNext);
  void noCallbackIsNext() { intoBase(); }
  /// @}

  /// The parent's set is the parent's: makes another of the same number. Before the base is
  /// renewed.
  void renewInForkedChild() noexcept;

  /// Calls `visit` with each member that is awaited.
  template <class Visit>
  void forEachAwaited(Visit visit) const {
    for (LibeventFdControl const* const each : members_) {
      if (each != nullptr && isAwaited(*each)) visit(*each);
    }
  }
  /// The event is one of this class and not one that somebody has asked for.
  static bool isOwn(event const& ev);

 private:
  static bool isAwaited(LibeventFdControl const& control);
  static void handleReady(int fd, short what, void* self);
  static void handleNothing(int fd, short what, void* self);
  bool change(int operation, int fd, std::uint32_t events) noexcept;
  void forget(LibeventFdControl& control) noexcept;
  void look();
  void collect() noexcept;
  void noteReady(LibeventFdControl& member) noexcept;
  void tell();
  void askAfter(int& place) noexcept;
  void intoBase() noexcept;
  void outOfBase() noexcept;

  int set_ = -1;
  event ready_;     // somebody in the set is
  event awaiting_;  // added while somebody is awaited, which is what keeps the loop
  event counts_;    // made active so that libevent counts a pass of ours
  std::size_t awaited_ = 0;
  std::vector<LibeventFdControl*> members_;  // by descriptor
  Zel::ListNode<LibeventFdControl> toTell_;
  bool byHand_ = false;         // callbacks look at the set, the base does not
  bool readyOfLate_ = false;    // since the latest callback
  unsigned busyCallbacks_ = 0;  // in a row, while the base looks
  Zel::AskLater askLater_;
  int asked_ = -1;  // one that the present look asks after
};

/// Of the calling thread's base; null where there was no memory for it.
LibeventTurns* leTurns();

}  // namespace Brelo::Impl
