#pragma once

#include <fmt/core.h>

#include <string>

#include "Brelo/Debug.h"
#include "Brelo/Exception.h"
#include "Brelo/Export.h"

/// What must never happen: a failed assertion traces its text at level 0 and then either ends
/// the process or throws an `AssertException`. Any thread may assert; nothing here returns or
/// throws anything else, whatever has become of standard error.
///
/// | throwOnAssertFail | forceTraceOnAssert | traced at level 0 | then                           |
/// |-------------------|--------------------|-------------------|--------------------------------|
/// | false (default)   | either             | yes               | text on stderr, std::terminate |
/// | true              | true (default)     | yes               | throw AssertException          |
/// | true              | false              | no                | throw AssertException          |
///
/// The trace goes out whether or not level 0 is enabled.

namespace Brelo {

/// A failed assertion that a process chose to survive (`throwOnAssertFailIs`). Its message is
/// the whole text, place included; a failure while it is built ends the process.
class BRELO_EXPORT AssertException : public Exception {
 public:
  /// Takes the stack, traces nothing.
  explicit AssertException(std::string const& message) noexcept;
  char const* name() const noexcept override;

  /// The last step of every assertion: throws, or ends the process, as set.
  [[noreturn]] static void throwException(std::string const& message);
};

/// Off at first: a failed assertion ends the process. Meant to be called at start-up; not
/// synchronised with assertions of other threads.
BRELO_EXPORT void throwOnAssertFailIs(bool on);
/// On at first. Has an effect only while assertions throw; to be called as the other one is.
BRELO_EXPORT void forceTraceOnAssertIs(bool on);

namespace Impl {

/// `fmassert` behind its template.
[[noreturn]] BRELO_EXPORT void vfmassert(Platform::DebugHandler const& handler, char const* cls,
                                         char const* file, char const* func, int line,
                                         fmt::string_view format, fmt::format_args args);
/// The form that traces through the handler named "Assert".
[[noreturn]] BRELO_EXPORT void vfmassert(char const* cls, char const* file, char const* func,
                                         int line, fmt::string_view format, fmt::format_args args);

/// Stay out of line, and with them the arguments' array.
/// @{
template <class... Args>
[[noreturn, gnu::cold, gnu::noinline]] void fmassertOutOfLine(Platform::DebugHandler const& handler,
                                                              char const* cls, char const* file,
                                                              char const* func, int line,
                                                              fmt::string_view format,
                                                              TextArg<Args>... args) {
  vfmassert(handler, cls, file, func, line, format, fmt::make_format_args(args...));
}
template <class... Args>
[[noreturn, gnu::cold, gnu::noinline]] void fmassertOutOfLine(char const* cls, char const* file,
                                                              char const* func, int line,
                                                              fmt::string_view format,
                                                              TextArg<Args>... args) {
  vfmassert(cls, file, func, line, format, fmt::make_format_args(args...));
}
/// @}

}  // namespace Impl

/// Fails with the text "file:line: cls::func() text"; a null `cls` drops "cls::func() ".
template <class... Args>
[[noreturn, gnu::always_inline]] inline void fmassert(Platform::DebugHandler const& handler,
                                                      char const* cls, char const* file,
                                                      char const* func, int line,
                                                      fmt::string_view format,
                                                      Args const&... args) {
  Impl::fmassertOutOfLine<Args...>(handler, cls, file, func, line, format, args...);
}

/// The same, traced through the handler named "Assert".
template <class... Args>
[[noreturn, gnu::always_inline]] inline void fmassert(char const* cls, char const* file,
                                                      char const* func, int line,
                                                      fmt::string_view format,
                                                      Args const&... args) {
  Impl::fmassertOutOfLine<Args...>(cls, file, func, line, format, args...);
}

/// Fails with the text "file:func:line: " and the stream's own.
[[noreturn]] BRELO_EXPORT void debugAndAssert(Platform::DebugHandler& handler,
                                              Platform::DebugStream& stream, char const* file,
                                              char const* func, int line);
/// The same, traced through the handler named "Assert".
[[noreturn]] BRELO_EXPORT void debugAndAssert(Platform::DebugStream& stream, char const* file,
                                              char const* func, int line);

}  // namespace Brelo

/// Fails the fmt form from here: class label (or nullptr), format string, arguments.
#define BRELO_FAIL(cls, ...) ::Brelo::fmassert((cls), __FILE__, __func__, __LINE__, __VA_ARGS__)
