#pragma once

#include <mutex>
#include <string>
#include <string_view>

namespace Zel {

/// Guards the registry, and every call of the C library's local time in the trace module:
/// that has a lock of its own, which a forked child would find held otherwise. It is held across
/// fork, and never while a record is written.
extern std::mutex traceLock;

/// What one trace record says, apart from the time, process and thread it is rendered in.
/// The texts belong to the caller.
struct TraceRecord {
  std::string_view facility;
  unsigned level;
  std::string_view file;
  int line;
  std::string_view func;
  std::string_view message;
};

inline constexpr std::string_view traceFormatDefault = "%t %p:%i %n/%l %f:%L %m";

/// The record in the given format, ending in exactly one newline. A directive that does not
/// exist, or a percent sign at the end, stands for itself. Any thread may call it, and a forked
/// child.
std::string traceFormatRender(std::string_view format, TraceRecord const& record);

}  // namespace Zel
