#include "Brelo/Debug.h"

#include <iterator>
#include <locale>

#include "Zel/Trace.h"

namespace Brelo {

namespace Platform {

DebugStream::DebugStream() {
  imbue(std::locale::classic());
  precision(12);
}

DebugHandler::DebugHandler(std::string const& name) : name_(name) {}

DebugHandler::~DebugHandler() = default;

void dumpDebugMsg(std::string_view message, unsigned short level, DebugHandler const& handler,
                  char const* file, char const* func, int line) noexcept {
  Zel::formatAndWriteTraceString(handler.name().c_str(), file, line, func, message.data(),
                                 message.size(), level);
}

}  // namespace Platform

namespace Impl {

std::string vtracestr(bool withLocation, char const* cls, char const* file, char const* func,
                      int line, fmt::string_view format, fmt::format_args args) noexcept {
  std::string text;
  text.reserve(128);
  auto const out = std::back_inserter(text);
  if (withLocation) fmt::format_to(out, "{}:{}: ", file, line);
  if (cls != nullptr) fmt::format_to(out, "{}::{}() ", cls, func);
  fmt::vformat_to(out, format, args);
  return text;
}

void vfmtrace(Platform::DebugHandler const& handler, unsigned short level, char const* cls,
              char const* file, char const* func, int line, fmt::string_view format,
              fmt::format_args args) noexcept {
  Platform::dumpDebugMsg(vtracestr(false, cls, file, func, line, format, args), level, handler,
                         file, func, line);
}

std::string vfmthrow(Platform::DebugHandler const& handler, unsigned short level, char const* cls,
                     char const* file, char const* func, int line, fmt::string_view format,
                     fmt::format_args args) noexcept {
  std::string text = vtracestr(false, cls, file, func, line, format, args);
  if (handler.enabled(level)) {
    Platform::dumpDebugMsg(text, level, handler, file, func, line);
  }
  return text;
}

}  // namespace Impl

}  // namespace Brelo
