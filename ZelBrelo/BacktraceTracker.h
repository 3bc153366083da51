#pragma once

#include <cstdint>

#include "Zel/Module.h"
#include "Zel/String.h"

namespace ZelBrelo {

/// The backtrace tracker as a type of the host's generic interface, so that host tools can reach
/// it by attribute name. An empty value: all state is the process's, in Brelo::BacktraceTracker,
/// whose rules and failures hold. Any two values are equal; a value cannot be hashed.
class BacktraceTracker {
 public:
  void clear() const;
  std::uint32_t capacity() const;
  void capacityIs(std::uint32_t capacity) const;
  /// The text of all records.
  Zel::String printAll() const;
  bool enabled() const;
  void enabledIs(bool on) const;
  /// Records the stack as it is here.
  void backtraceIs(Zel::String const& msg) const;

  friend bool operator==(BacktraceTracker const&, BacktraceTracker const&) { return true; }
};

/// The record under which the host lists the type; registered when the library is loaded.
extern Zel::ZelModule const _BacktraceTracker_a103068c1ecd3333_zelModule;

}  // namespace ZelBrelo
