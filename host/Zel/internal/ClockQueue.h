#pragma once

#include <cstdint>
#include <limits>
#include <vector>

#include "Zel/Clock.h"
#include "Zel/List.h"

namespace Zel {

/// The armed notifiees of the clock, in the order in which they are to be told.
///
/// It is told the time and reads no clock. It refers to notifiees without owning them; they
/// take themselves out. Arming is O(1), as is all about times that have passed; a time
/// to come costs O(log n) when it is collected, disarmed or due. Only `collect` allocates,
/// and only while the queue is larger than ever before.
class ClockQueue {
 public:
  using Notifiee = Clock::NotifieeConst;

  /// Later times are treated as this one, so that nanoseconds fit in 64 bits.
  static constexpr double lastTime = 9e9;

  ClockQueue() : heap_(1) {}

  /// By its `timeMin`, in place of an earlier arming.
  void arm(Notifiee& notifiee) noexcept;
  void disarm(Notifiee& notifiee) noexcept;

  double now() const { return now_; }
  void nowIs(double now) { now_ = now; }

  /// What is due depends on the time, and not only on what has been asked for long since.
  bool undecided() const { return fresh_.linked() || heap_.size() > 1; }
  /// Makes everything that has been armed for `now` or earlier due.
  void collect();

  /// Calls `visit` with each armed notifiee, in no order.
  template <class Visit>
  void forEachArmed(Visit const& visit) {
    for (auto* const list : {&past_, &fresh_, &due_})
      forEach(*list, visit);
    for (std::size_t index = 1; index < heap_.size(); ++index)
      visit(*heap_[index].notifiee);
  }

  /// Something that was collected waits to be taken.
  bool due() const { return due_.linked(); }
  /// Disarms and tells the next one in order; false if there is none. What it throws goes on
  /// rising.
  bool tellNext();
  /// After `collect`: when the first of those that are not due will be; infinite with none.
  double first() const {
    return heap_.size() > 1 ? heap_[1].time : std::numeric_limits<double>::infinity();
  }

 private:
  struct Entry {
    double time;
    std::uint64_t sequence;
    Notifiee* notifiee;

    bool operator<(Entry const& other) const {
      return time != other.time ? time < other.time : sequence < other.sequence;
    }
  };

  static Entry entry(Notifiee& notifiee);
  void sortDue();
  void push(Notifiee& notifiee);
  void remove(std::size_t index) noexcept;
  void place(std::size_t index, Entry const& entry) noexcept;
  void siftUp(std::size_t index, Entry const& entry) noexcept;
  void siftDown(std::size_t index, Entry const& entry) noexcept;

  double now_ = 0;
  std::uint64_t sequence_ = 0;
  ListNode<Notifiee> past_;   ///< armed for a time that had passed
  ListNode<Notifiee> fresh_;  ///< armed since the last `collect` for a time after `now_`
  ListNode<Notifiee> due_;    ///< collected, in order
  std::vector<Entry> heap_;   ///< the others; counted from 1, each knows its index
  std::vector<Entry> sorting_;
};

}  // namespace Zel
