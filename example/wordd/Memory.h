#pragma once

#include <cstddef>
#include <memory>
#include <utility>

namespace Wordd {

/// Bytes that several owners may take together. On one thread.
struct MemoryBudget {
  explicit MemoryBudget(std::size_t bytes) : left(bytes) {}
  std::size_t left;
};

/// One owner's part of a budget, given back at its end.
class MemoryShare {
 public:
  explicit MemoryShare(std::shared_ptr<MemoryBudget> budget) : budget_(std::move(budget)) {}
  MemoryShare(MemoryShare const&) = delete;
  MemoryShare& operator=(MemoryShare const&) = delete;
  ~MemoryShare() { sizeIs(0); }

  /// False, and the share stays as it was, if the budget has not so much left.
  bool sizeIs(std::size_t bytes) {
    if (bytes > size_ + budget_->left) return false;
    budget_->left = budget_->left + size_ - bytes;
    size_ = bytes;
    return true;
  }

 private:
  std::shared_ptr<MemoryBudget> budget_;
  std::size_t size_ = 0;
};

}  // namespace Wordd
