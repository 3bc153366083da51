#pragma once

#include "Brelo/Debug.h"

/// @file
/// What the scheduler's sources share for traces and assertions.

namespace Brelo::Impl {

/// The module handler "TaskScheduler".
[[gnu::visibility("hidden")]] extern ModuleTrace const schedulerTrace;

/// Ends the process through the C library's assertion, with the stream's text as expression.
[[noreturn]] void schedulerAssertFail(Platform::DebugStream const& text, char const* func,
                                      unsigned line);

/// The parts come by value, so that no local of a hot function has an address.
template <class... Parts>
[[noreturn, gnu::cold, gnu::noinline]] void schedulerFail(char const* func, unsigned line,
                                                          Parts... parts) {
  Platform::DebugStream text;
  (text << ... << parts);
  schedulerAssertFail(text, func, line);
}

}  // namespace Brelo::Impl

/// Fails with the parts after the condition, written to a stream one after the other.
#define BRELO_SCHEDULER_ASSERT(condition, ...)                       \
  do {                                                               \
    if (__builtin_expect(!(condition), 0))                           \
      ::Brelo::Impl::schedulerFail(__func__, __LINE__, __VA_ARGS__); \
  } while (0)
