#pragma once

#include <cstdint>
#include <string>

#include "Brelo/DisplayPointer.h"

namespace Brelo {

/// A task's identity: its address as a number, which is printed and never followed.
class TaskKey {
 public:
  /// The key of no task: zero.
  TaskKey() = default;
  /// The key of the task at that address.
  explicit TaskKey(void const* task) : key_(reinterpret_cast<std::uintptr_t>(task)) {}

  /// "@" and the address.
  std::string toStrep() const {
    return "@" + DisplayPointer(reinterpret_cast<void const*>(key_)).toString();
  }

  /// Whether both are of one address, at whatever time.
  /// @{
  friend bool operator==(TaskKey a, TaskKey b) { return a.key_ == b.key_; }
  friend bool operator!=(TaskKey a, TaskKey b) { return a.key_ != b.key_; }
  /// @}

 private:
  std::uint64_t key_ = 0;
};

}  // namespace Brelo
