#pragma once

#include <array>
#include <cstdint>

namespace BreloObserve::Impl {

/// A stack as a signal's handler takes it: addresses, no names.
struct TakenStack {
  static constexpr int framesMax = 100;

  int count = 0;
  /// Innermost first: where the interrupted code was, and in callers the last byte of their calls.
  std::array<std::uintptr_t, framesMax> addresses;
  std::array<std::uintptr_t, framesMax> functions;  ///< where their functions begin, or 0
};

/// Walks the stack of its own thread, from inside a signal's handler that may have interrupted
/// anything, the loader, the allocator and the unwinder included: takes no lock and no memory.
class StackTaker {
 public:
  /// Finds the unwinder and has it set itself up. None is an assertion.
  StackTaker();

  /// The stack that the signal met, whose handler was given `context`.
  void take(void const* context, TakenStack& stack) const;

 private:
  struct Walk;
  struct Unwinder;

  Unwinder const& unwinder_;
};

}  // namespace BreloObserve::Impl
