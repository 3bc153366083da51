#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Brelo/TaskImpl.h"
#include "Brelo/TaskSchedulerBase.h"
#include "BreloObserve/internal/NameAccount.h"

namespace BreloObserve::Impl {

/// The accounts of all names, found by the addresses of a task's group name and stats name, which
/// the accounts keep.
class NameTable {
 public:
  /// With room for that many.
  explicit NameTable(std::size_t namesMax);

  /// The account of the task's name, or null.
  NameAccount* find(Brelo::TaskImpl const& task) {
    Key const key = keyOf(task);
    if (latest_.key.group == key.group && latest_.key.name == key.name) return latest_.account;
    for (std::size_t at = home(key);; at = (at + 1) & mask_) {
      Slot const& slot = slots_[at];
      if (slot.account == nullptr) return nullptr;
      if (slot.key.group == key.group && slot.key.name == key.name) {
        latest_ = slot;
        return slot.account;
      }
    }
  }
  /// A new account for a task that has none; null where there is no room or no memory.
  NameAccount* make(Brelo::TaskImpl const& task) noexcept;
  /// Ends the window of all accounts, and lets go of those that have not counted a run in it.
  void clearWindow() noexcept;

  std::vector<std::unique_ptr<NameAccount>> const& accounts() const { return accounts_; }

 private:
  struct Key {
    std::uintptr_t group;
    std::uintptr_t name;
  };
  struct Slot {
    Key key;
    NameAccount* account;  // null for none
  };

  static Key keyOf(Brelo::TaskImpl const& task) {
    return {task.taskScheduler()->schedulerNameRef().identity(),
            task.taskStatsNameRef().identity()};
  }
  std::size_t home(Key key) const {
    std::uint64_t const mixed = (key.name ^ (key.group << 9)) * 0x9E3779B97F4A7C15U;
    return static_cast<std::size_t>(mixed >> 32) & mask_;
  }
  void insert(Key key, NameAccount& account) noexcept;

  std::size_t namesMax_;
  std::size_t mask_;
  std::vector<Slot> slots_;  // at most half of them taken
  Slot latest_{};            // the one that was found last: the next run is often of the same name
  std::vector<std::unique_ptr<NameAccount>> accounts_;
};

}  // namespace BreloObserve::Impl
