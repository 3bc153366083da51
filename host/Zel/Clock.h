#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>

#include "Zel/Export.h"
#include "Zel/List.h"
#include "Zel/Ptr.h"

namespace Zel {

class ClockQueue;

/// The clock that drives the activity loop.
///
/// There is one in the process, held by the activity manager. It tells each registered
/// notifiee once, with `timeAttribute`, when it has reached the time that the notifiee asked
/// for. All of it belongs to the thread that runs the loop.
class ZEL_EXPORT Clock final : public PtrInterface {
 public:
  class NotifieeConst;

  /// For the activity manager, with the queue of its loop.
  explicit Clock(ClockQueue& queue) : queue_(queue) {}

  /// The same as `System::currentTime()`.
  double time() const;

 private:
  ~Clock() override;

  ClockQueue& queue_;
};

/// Wants to be told when the clock reaches a time. To be attached to a `Clock`: with any
/// other notifier it is never told. Its `timeMin` is noted while it is not registered, and
/// counts as asked for when it is registered.
class ZEL_EXPORT Clock::NotifieeConst : public PtrInterface::NotifieeConst {
 public:
  /// Asks to be told once, when the clock has reached `seconds` (as `System::currentTime()`
  /// counts); replaces what was asked before. A time that has passed, zero and negative ones
  /// included, means the next pass of the loop, also when asked from a handler. Positive
  /// infinity asks for nothing; a time after 9e9, in the year 2255, is delivered as 9e9. A
  /// NaN throws `std::invalid_argument`. Does not allocate.
  void timeMinIs(double seconds);
  /// What was asked for, positive infinity from the moment before it is told.
  double timeMin() const { return timeMin_; }

 protected:
  NotifieeConst() = default;
  ~NotifieeConst() override;

  /// Arms and disarms. An override calls this one.
  void attachedIs(bool attached) override;
  /// One that is let go of while it is told ends when it has been told.
  void onZeroReferences() const noexcept override;

 private:
  friend class ClockQueue;
  class Telling;

  void tell();

  ClockQueue* queue_ = nullptr;  ///< while attached
  double timeMin_ = std::numeric_limits<double>::infinity();
  std::uint64_t sequence_ = 0;  ///< order of asking
  std::size_t heapIndex_ = 0;   ///< 0: not in the heap
  bool told_ = false;           ///< being told at this moment
  ListNode<NotifieeConst> queueNode_{this};
};

}  // namespace Zel
