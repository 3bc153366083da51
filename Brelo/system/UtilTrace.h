#pragma once

#include "Brelo/Assert.h"
#include "Brelo/Debug.h"
#include "Brelo/Exception.h"

/// How the system helpers trace and fail. `handler` is a DebugHandler or a
/// ModuleTrace.
namespace Brelo::Impl {

/// The module handler "BreloUtil".
[[gnu::visibility("hidden")]] extern ModuleTrace const utilTrace;

template <class... Args>
[[noreturn]] void fmthrow(Platform::DebugHandler const& handler, char const* file, char const* func,
                          int line, char const* cls, fmt::string_view format, Args const&... args) {
  RuntimeException::throwException(
      vfmthrow(handler, 0, cls, file, func, line, format, fmt::make_format_args(args...)));
}

}  // namespace Brelo::Impl

#define BRELO_UTIL_TRACE(handler, level, ...) \
  BRELO_TRACE((handler), (level), "Brelo::Util", __VA_ARGS__)

/// Fails an assertion that is traced through `handler`.
#define BRELO_UTIL_FAIL(handler, ...) \
  ::Brelo::fmassert((handler), "Brelo::Util", __FILE__, __func__, __LINE__, __VA_ARGS__)

/// Throws a RuntimeException, traced at level 0: class label, format string, arguments.
#define BRELO_THROW(handler, cls, ...) \
  ::Brelo::Impl::fmthrow((handler), __FILE__, __func__, __LINE__, (cls), __VA_ARGS__)
