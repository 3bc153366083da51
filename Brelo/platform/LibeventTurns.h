#pragma once

#include <event2/event.h>
#include <event2/event_struct.h>

#include <cstddef>
#include <vector>

#include "Zel/List.h"

namespace Brelo {
class LibeventFdControl;
}

namespace Brelo::Impl {

/// Reads of clients that take turns, in an epoll set beneath that of their base. libevent changes a
/// watch by two system calls for each request of such a client: one to turn it off, one to turn it
/// on again. In this set each is told once and then sleeps until it is awaited again, which is one.
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

  /// The next look tells the member if it is readable then. False if its descriptor has been
  /// closed: it has left then.
  bool await(LibeventFdControl& control) noexcept;
  /// It is not told any more.
  void awaitNoMore(LibeventFdControl& control) noexcept;

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
  bool change(int operation, int fd, bool tells) noexcept;
  void forget(LibeventFdControl& control) noexcept;
  void collect() noexcept;
  void tell();

  int set_ = -1;
  event ready_;     // somebody in the set is
  event awaiting_;  // added while somebody is awaited, which is what keeps the loop
  event counts_;    // made active so that libevent counts a pass of ours
  std::size_t awaited_ = 0;
  std::vector<LibeventFdControl*> members_;  // by descriptor
  Zel::ListNode<LibeventFdControl> toTell_;
};

/// Of the calling thread's base; null where there was no memory for it.
LibeventTurns* leTurns();

}  // namespace Brelo::Impl
