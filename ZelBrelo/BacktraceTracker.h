#pragma once

#include <cstdint>

#include "Brelo/Export.h"
#include "Zel/Module.h"
#include "Zel/String.h"

namespace ZelBrelo {

/// The backtrace tracker as a type of the host's generic interface, so that host tools can reach
/// it by attribute name. An empty value: all state is the process's, in Brelo::BacktraceTracker,
/// whose rules and failures hold. Any two values are equal; a value cannot be hashed.
class BRELO_EXPORT BacktraceTracker {
 public:
  void clear() const;                             ///< drops all records
  std::uint32_t capacity() const;                 ///< in records
  void capacityIs(std::uint32_t capacity) const;  ///< 0, and any while disabled: an assertion
  /// The text of all records.
  Zel::String printAll() const;
  bool enabled() const;           ///< whether records are taken
  void enabledIs(bool on) const;  ///< keeps what has been recorded
  /// Records the stack as it is here.
  void backtraceIs(Zel::String const& msg) const;

  /// Always true.
  friend bool operator==(BacktraceTracker const&, BacktraceTracker const&) { return true; }
};

/// The record under which the host lists the type; registered when the library is loaded.
extern BRELO_EXPORT Zel::ZelModule const _BacktraceTracker_a103068c1ecd3333_zelModule;

}  // namespace ZelBrelo
