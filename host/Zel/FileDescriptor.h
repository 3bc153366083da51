#pragma once

#include <cstdint>
#include <optional>

#include "Zel/Export.h"
#include "Zel/List.h"
#include "Zel/Ptr.h"
#include "Zel/String.h"

namespace Zel {

/// Watches one descriptor number for its notifiees.
///
/// While bound to a number, active, and asked for a direction, each pass of the activity loop
/// that finds the descriptor ready raises the direction's counter by one and tells the
/// notifiees (`readableCountAttribute`, `writableCountAttribute`). This is by level: what is
/// left ready is reported by the next pass again. A hang-up or an error counts as ready in
/// the directions asked for; a file that cannot be polled is always ready. Several objects
/// may watch one number.
///
/// It does not own the number. A client unbinds before it closes; after closing first it may
/// hear nothing, or of the old file, until it unbinds or binds again. All of it belongs to
/// the thread that runs the loop.
class ZEL_EXPORT FileDescriptor final : public PtrInterface {
 public:
  using NotifieeConst = PtrInterface::NotifieeConst;  ///< what hears of it

  /// Unbound, inactive, and asking for neither direction.
  explicit FileDescriptor(String name);

  String const& name() const { return name_; }  ///< for the texts of failures

  /// While off, nothing is watched. The wishes for directions stay. Throws as the wishes do.
  void hasNotificationActiveIs(bool active);
  bool hasNotificationActive() const { return active_; }  ///< off also after a failure to turn on

  /// Watches this number from the next pass on, in place of an earlier one; -1 unbinds.
  /// Binding the same number again is of use after it was closed and opened anew. Throws
  /// `std::system_error` for a bad number, and is unbound then.
  void descriptorIs(int descriptor);
  int descriptor() const { return descriptor_; }  ///< -1: unbound

  /// The mode to give to the descriptor now bound, and to each one when it is bound. Without
  /// a call the mode is left as it is. Throws `std::system_error` if a bound one refuses.
  void nonBlockingIs(bool nonBlocking);

  /// A wish; it stays across a change of number. One that is turned on counts from the next pass.
  /// On a number that is not open any more it is always ready, so that the client meets the error
  /// at its own read. Throws `std::system_error` if the kernel refuses, and is off then.
  void notifyOnReadableIs(bool on);
  /// `notifyOnReadableIs(true)` of a client that turned it off in a notification, has read since,
  /// as a rule all there was, and has others to serve first. What was left unread is reported less
  /// than `passes` passes later than otherwise, and before the loop waits; what comes from now on
  /// by the next one. With enough of them this costs no system call as a rule.
  void notifyOnReadableAgain(unsigned passes);
  /// The same as `notifyOnReadableIs` for writes.
  void notifyOnWritableIs(bool on);
  bool notifyOnReadable() const { return readable_.wanted; }  ///< the wish
  bool notifyOnWritable() const { return writable_.wanted; }  ///< the wish

  std::uint32_t readableCount() const { return readable_.count; }  ///< reports so far; wraps
  std::uint32_t writableCount() const { return writable_.count; }  ///< reports so far; wraps

 private:
  friend class DescriptorSet;

  struct Direction {
    bool wanted = false;
    std::uint32_t count = 0;
    std::uint64_t since = 0;  ///< the last look at the descriptors that did not count for it
  };

  ~FileDescriptor() override;

  std::uint32_t events() const;
  template <class Tell>
  void wishIs(Direction& direction, bool on, Tell tell);
  int wishesChanged(bool more);
  void unbind() noexcept;
  void readyIs(std::uint32_t events, std::uint64_t look);
  void deliver(Direction& direction, AttributeId id, std::uint64_t look);

  String name_;
  int descriptor_ = -1;
  bool active_ = false;
  std::optional<bool> nonBlocking_;
  Direction readable_;
  Direction writable_;
  ListNode<FileDescriptor> node_{this};  ///< among the objects on this number
};

}  // namespace Zel
