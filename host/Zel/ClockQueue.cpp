#include "Zel/internal/ClockQueue.h"

#include <algorithm>

namespace Zel {

void ClockQueue::arm(Notifiee& notifiee) noexcept {
  disarm(notifiee);
  if (notifiee.timeMin_ == std::numeric_limits<double>::infinity()) return;
  notifiee.sequence_ = ++sequence_;
  notifiee.queueNode_.insertBefore(notifiee.timeMin_ <= now_ ? past_ : fresh_);
}

void ClockQueue::disarm(Notifiee& notifiee) noexcept {
  if (notifiee.heapIndex_ != 0) {
    remove(notifiee.heapIndex_);
  } else {
    notifiee.queueNode_.unlink();
  }
}

ClockQueue::Entry ClockQueue::entry(Notifiee& notifiee) {
  return Entry{std::min(notifiee.timeMin_, lastTime), notifiee.sequence_, &notifiee};
}

void ClockQueue::collect() {
  bool ordered = true;
  auto const makeDue = [&](Notifiee& notifiee) {
    Notifiee* const last = due_.previous()->owner();
    ordered = ordered && (last == nullptr || entry(*last) < entry(notifiee));
    notifiee.queueNode_.insertBefore(due_);
  };

  while (past_.linked())
    makeDue(*past_.next()->owner());
  while (first() <= now_) {
    Notifiee& notifiee = *heap_[1].notifiee;
    remove(1);
    makeDue(notifiee);
  }
  while (fresh_.linked()) {
    Notifiee& notifiee = *fresh_.next()->owner();
    if (entry(notifiee).time <= now_) {
      makeDue(notifiee);
    } else {
      push(notifiee);
    }
  }
  if (!ordered) sortDue();
}

bool ClockQueue::tellNext() {
  Notifiee* const notifiee = due_.next()->owner();
  if (notifiee == nullptr) return false;
  notifiee->queueNode_.unlink();
  notifiee->timeMin_ = std::numeric_limits<double>::infinity();
  notifiee->tell();
  return true;
}

void ClockQueue::sortDue() {
  sorting_.clear();
  for (auto* node = due_.next(); node != &due_; node = node->next()) {
    sorting_.push_back(entry(*node->owner()));
  }
  std::sort(sorting_.begin(), sorting_.end());
  for (Entry const& next : sorting_)
    next.notifiee->queueNode_.insertBefore(due_);
}

void ClockQueue::push(Notifiee& notifiee) {
  Entry const added = entry(notifiee);
  heap_.push_back(added);
  notifiee.queueNode_.unlink();
  siftUp(heap_.size() - 1, added);
}

void ClockQueue::remove(std::size_t index) noexcept {
  heap_[index].notifiee->heapIndex_ = 0;
  Entry const last = heap_.back();
  heap_.pop_back();
  if (index == heap_.size()) return;
  if (index > 1 && last < heap_[index / 2]) {
    siftUp(index, last);
  } else {
    siftDown(index, last);
  }
}

void ClockQueue::place(std::size_t index, Entry const& entry) noexcept {
  heap_[index] = entry;
  entry.notifiee->heapIndex_ = index;
}

void ClockQueue::siftUp(std::size_t index, Entry const& entry) noexcept {
  for (; index > 1 && entry < heap_[index / 2]; index /= 2)
    place(index, heap_[index / 2]);
  place(index, entry);
}

void ClockQueue::siftDown(std::size_t index, Entry const& entry) noexcept {
  for (std::size_t child; (child = 2 * index) < heap_.size(); index = child) {
    if (child + 1 < heap_.size() && heap_[child + 1] < heap_[child]) ++child;
    if (entry < heap_[child]) break;
    place(index, heap_[child]);
  }
  place(index, entry);
}

}  // namespace Zel
