#include "Brelo/Assert.h"

#include <cstdio>
#include <exception>

namespace Brelo {

namespace {

// Made when the library is loaded, or by an assertion before that.
ModuleTrace const& assertTrace() {
  static ModuleTrace const trace("Assert");
  return trace;
}

[[maybe_unused]] ModuleTrace const& madeAtLoad = assertTrace();

bool throwOnAssertFail = false;
bool forceTraceOnAssert = true;

bool traceWanted() {
  return forceTraceOnAssert || !throwOnAssertFail;
}

}  // namespace

AssertException::AssertException(std::string const& message) noexcept : Exception(message, true) {}

char const* AssertException::name() const noexcept {
  return "Brelo::AssertException";
}

void AssertException::throwException(std::string const& message) {
  if (throwOnAssertFail) throw AssertException(message);
  try {
    fmt::print(stderr, "Brelo::Assert aborting because: {}\n", message);
  } catch (...) {
    // Nobody may read standard error, but that does not save the process.
  }
  std::terminate();
}

void throwOnAssertFailIs(bool on) {
  throwOnAssertFail = on;
}

void forceTraceOnAssertIs(bool on) {
  forceTraceOnAssert = on;
}

void Impl::vfmassert(Platform::DebugHandler const& handler, char const* cls, char const* file,
                     char const* func, int line, fmt::string_view format, fmt::format_args args) {
  std::string const text = vtracestr(true, cls, file, func, line, format, args);
  if (traceWanted()) Platform::dumpDebugMsg(text, 0, handler, file, func, line);
  AssertException::throwException(text);
}

void Impl::vfmassert(char const* cls, char const* file, char const* func, int line,
                     fmt::string_view format, fmt::format_args args) {
  vfmassert(assertTrace(), cls, file, func, line, format, args);
}

void debugAndAssert(Platform::DebugHandler& handler, Platform::DebugStream& stream,
                    char const* file, char const* func, int line) {
  auto const tracedText = [&]() noexcept {
    Platform::DebugStream text;
    text << file << ":" << func << ":" << line << ": " << stream.str();
    if (traceWanted()) handler.dump(text, 0, file, func, line);
    return text.str();
  };
  AssertException::throwException(tracedText());
}

void debugAndAssert(Platform::DebugStream& stream, char const* file, char const* func, int line) {
  debugAndAssert(assertTrace(), stream, file, func, line);
}

}  // namespace Brelo
