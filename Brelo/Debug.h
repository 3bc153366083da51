#pragma once

#include <fmt/core.h>

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

#include "Brelo/DisplayPointer.h"
#include "Brelo/Export.h"

/// Tracing: a named handle for each module with a mask of sixteen levels, and trace lines made
/// with the fmt library.
///
/// A call site tests the level's bit before anything else, through BRELO_TRACE; what a disabled
/// trace would have printed is never evaluated. Any thread may trace. A failure while a line is
/// formatted or written, a bad format string included, ends the process.

namespace Brelo::Platform {

/// A string stream for text that is built with `<<`; prints 12 significant digits, in the classic
/// locale whatever the global one is.
class BRELO_EXPORT DebugStream : public std::stringstream {
 public:
  DebugStream();
};

/// A module's trace handle. Level n is on when bit `1 << n` of the mask word is set; the word
/// belongs to the sink and is shared by all handlers of one name, so that a change of settings
/// reaches every module at once. Always owned by a shared pointer (`getDebugHandler`).
class BRELO_EXPORT DebugHandler : public std::enable_shared_from_this<DebugHandler> {
 public:
  DebugHandler(DebugHandler const&) = delete;
  DebugHandler& operator=(DebugHandler const&) = delete;
  virtual ~DebugHandler();

  /// Switches one level, 0 to 15, for every handler of this name.
  virtual void enabledIs(unsigned short level, bool enabled) = 0;
  /// Writes the stream's text as one record, whether or not `level` is on.
  virtual void dump(DebugStream& stream, unsigned short level, char const* file, char const* func,
                    int line) const = 0;

  /// One relaxed load. Levels 16 to 31 are off; higher ones are not to be asked for.
  bool enabled(unsigned short level) const {
    return (__atomic_load_n(levelsEnabled_, __ATOMIC_RELAXED) & (1u << level)) != 0;
  }
  /// The mask word, never null: for relaxed loads, and to be kept no longer than the handler.
  std::uint16_t const* levelsEnabled() const { return levelsEnabled_; }
  std::string const& name() const { return name_; }  ///< as it was asked for

 protected:
  /// Starts on its own mask word, with every level off.
  explicit DebugHandler(std::string const& name);

  std::uint16_t localLevels_ = 0;                       ///< the word of a handler without a sink
  std::uint16_t const* levelsEnabled_ = &localLevels_;  ///< never null
  std::string name_;                                    ///< of the handler
};

/// A new handler under `name`. Handlers of one name share one mask word. Any failure ends the
/// process.
BRELO_EXPORT std::shared_ptr<DebugHandler> getDebugHandler(std::string const& name) noexcept;

/// Hands a finished text to the sink, which adds time, process and place. `noexcept`: a sink
/// that fails ends the process.
BRELO_EXPORT void dumpDebugMsg(std::string_view message, unsigned short level,
                               DebugHandler const& handler, char const* file, char const* func,
                               int line) noexcept;

// The trace settings of the process. They are kept in its environment, hence inherited by child
// processes, and take effect in every module at once; the grammars are in Zel/Trace.h. What the
// host cannot read has no effect. The environment has no lock: these belong to start-up or to one
// controlling thread, while no other thread reads or changes it. Null arguments do nothing.

/// Adds a comma-separated list to the end of TRACE, where it wins over what stands before it.
BRELO_EXPORT void setupBreloDebug(char const* settings) noexcept;
/// Adds the list with a dash before each item, which switches off what the items switched on.
BRELO_EXPORT void clearBreloDebug(char const* settings) noexcept;
/// The settings in force as one such list, in their order.
BRELO_EXPORT std::string breloDebugSettings();
/// Prints them on standard output, one to a line.
BRELO_EXPORT void dumpBreloDebugMap() noexcept;
/// Makes `format` the TRACEFORMAT; an empty one means the host's default.
BRELO_EXPORT void setTraceFormat(char const* format) noexcept;
/// Back to the host's default.
BRELO_EXPORT void clearTraceFormat() noexcept;

}  // namespace Brelo::Platform

namespace Brelo {

/// A module's handler as a static object, with the mask word at hand: a disabled trace loads
/// one pointer and tests one bit behind it. The handler is never released, so that static
/// destructors, and threads that outlive them, trace like anyone else.
class ModuleTrace {
 public:
  /// Any failure ends the process.
  explicit ModuleTrace(std::string const& name)
      : handler_(*new std::shared_ptr<Platform::DebugHandler>(Platform::getDebugHandler(name))),
        levels_(handler_->levelsEnabled()) {}

  /// As `DebugHandler::enabled`.
  bool enabled(unsigned short level) const {
    return (__atomic_load_n(levels_, __ATOMIC_RELAXED) & (1u << level)) != 0;
  }
  /// The handler, which lives as long as the process.
  operator Platform::DebugHandler&() const { return *handler_; }

 private:
  std::shared_ptr<Platform::DebugHandler> const& handler_;
  std::uint16_t const* levels_;
};

/// A mix-in for classes that trace through a handler of their own choice.
class Debuggable {
 public:
  /// Without a handler: `debugHandler_` is null.
  Debuggable() = default;
  /// Shares the handler.
  explicit Debuggable(std::shared_ptr<Platform::DebugHandler>& handler) : debugHandler_(handler) {}
  /// Shares the handler; raises `std::bad_weak_ptr` if no shared pointer owns it.
  explicit Debuggable(Platform::DebugHandler& handler)
      : debugHandler_(handler.shared_from_this()) {}
  /// With a handler of that name.
  explicit Debuggable(std::string const& name) : debugHandler_(Platform::getDebugHandler(name)) {}

 protected:
  std::shared_ptr<Platform::DebugHandler> debugHandler_;  ///< what the class traces through
};

namespace Impl {

/// The text of a trace or an assertion: "file:line: " if asked for, then "cls::func() " unless
/// `cls` is null, then the formatted rest.
BRELO_EXPORT std::string vtracestr(bool withLocation, char const* cls, char const* file,
                                   char const* func, int line, fmt::string_view format,
                                   fmt::format_args args) noexcept;

/// `fmtrace` behind its template.
BRELO_EXPORT void vfmtrace(Platform::DebugHandler const& handler, unsigned short level,
                           char const* cls, char const* file, char const* func, int line,
                           fmt::string_view format, fmt::format_args args) noexcept;

/// The text for an exception: returned, and traced first if `level` is on.
BRELO_EXPORT std::string vfmthrow(Platform::DebugHandler const& handler, unsigned short level,
                                  char const* cls, char const* file, char const* func, int line,
                                  fmt::string_view format, fmt::format_args args) noexcept;

/// How a text's argument is handed over: by value if it fits a register, so that no local of a hot
/// function needs an address.
template <class Arg>
using TextArg =
    std::conditional_t<std::is_trivially_copy_constructible_v<Arg> && sizeof(Arg) <= sizeof(void*),
                       Arg, Arg const&>;

/// Stays out of line, and with it the arguments' array.
template <class... Args>
[[gnu::cold, gnu::noinline]] void fmtraceOutOfLine(Platform::DebugHandler const& handler,
                                                   unsigned short level, char const* file,
                                                   char const* func, int line, char const* cls,
                                                   fmt::string_view format, TextArg<Args>... args) {
  vfmtrace(handler, level, cls, file, func, line, format, fmt::make_format_args(args...));
}

}  // namespace Impl

/// Writes one trace line, `cls::func() text`, or the text alone for a null `cls`. Does not test
/// the level: that is the call site's duty (BRELO_TRACE).
template <class... Args>
[[gnu::always_inline]] inline void fmtrace(Platform::DebugHandler const& handler,
                                           unsigned short level, char const* file, char const* func,
                                           int line, char const* cls, fmt::string_view format,
                                           Args const&... args) {
  Impl::fmtraceOutOfLine<Args...>(handler, level, file, func, line, cls, format, args...);
}

}  // namespace Brelo

/// Traces at `level` if `handler`, a DebugHandler or a ModuleTrace, has that level on; else
/// evaluates nothing. After `cls` come the format string and its arguments.
#define BRELO_TRACE(handler, level, cls, ...)                                                 \
  do {                                                                                        \
    if (__builtin_expect((handler).enabled(level), 0))                                        \
      ::Brelo::fmtrace((handler), (level), __FILE__, __func__, __LINE__, (cls), __VA_ARGS__); \
  } while (0)
