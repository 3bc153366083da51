#include "Zel/internal/TraceFormat.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace Zel {

std::mutex traceLock;

namespace {

void appendLocalTime(std::string& out) {
  // Plain data without a destructor, since static destructors trace.
  struct Second {
    std::time_t time = -1;
    char text[64] = {};
  };
  thread_local Second second;

  timespec now = {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  if (now.tv_sec != second.time) {
    std::lock_guard<std::mutex> const guard(traceLock);
    std::tm local = {};
    ::localtime_r(&now.tv_sec, &local);
    std::strftime(second.text, sizeof second.text, "%Y-%m-%d %H:%M:%S", &local);
    second.time = now.tv_sec;
  }
  char micros[24];
  std::snprintf(micros, sizeof micros, ".%06ld", now.tv_nsec / 1000);
  out.append(second.text).append(micros);
}

/// False if there is no such directive.
bool appendDirective(std::string& out, char directive, TraceRecord const& record) {
  switch (directive) {
    case 't':
      appendLocalTime(out);
      return true;
    case 'p':
      out += std::to_string(::getpid());
      return true;
    case 'i':
      out += std::to_string(::gettid());
      return true;
    case 'n':
      out += record.facility;
      return true;
    case 'l':
      out += std::to_string(record.level);
      return true;
    case 'f':
      out += record.file;
      return true;
    case 'L':
      out += std::to_string(record.line);
      return true;
    case 'F':
      out += record.func;
      return true;
    case 'm':
      out += record.message;
      return true;
    case '%':
      out += '%';
      return true;
    default:
      return false;
  }
}

}  // namespace

std::string traceFormatRender(std::string_view format, TraceRecord const& record) {
  std::string out;
  out.reserve(128 + record.message.size());
  for (std::size_t i = 0; i < format.size(); ++i) {
    bool const isDirective = format[i] == '%' && i + 1 < format.size();
    if (isDirective && appendDirective(out, format[i + 1], record)) {
      ++i;
    } else {
      out += format[i];
    }
  }
  out.resize(out.find_last_not_of('\n') + 1);
  out += '\n';
  return out;
}

}  // namespace Zel
