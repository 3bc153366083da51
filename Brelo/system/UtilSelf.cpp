#include "Brelo/UtilSelf.h"

#include <dlfcn.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <memory>
#include <utility>

#include "Brelo/Thread.h"
#include "Brelo/system/UtilTrace.h"

namespace Brelo {

namespace {

double readWaitForDefault() {
  double timeout = std::numeric_limits<double>::infinity();
  if (char const* const value = ::secure_getenv("WAITFOR_DEFAULT"); value != nullptr) {
    try {
      timeout = std::stod(value);
    } catch (std::exception const&) {
      std::fputs("Parsing the WAITFOR_DEFAULT env. variable failed", stderr);
    }
  }
  return timeout;
}

// dlerror() is the thread's own as well, and takes its text back at the next failure.
thread_local std::string lastDlErrorText;
thread_local char const* lastDlError = nullptr;

void* resolveIfChecked(Platform::DebugHandler& handler, char const* name) {
  bool const checked = ::secure_getenv("HEAPCHECK") != nullptr ||
                       ::secure_getenv("HEAP_CHECK_TRACE_PYTHON_ARENAS") != nullptr;
  return checked ? Util::resolveSym(handler, name) : nullptr;
}

}  // namespace

double waitForDefaultTimeout() {
  static double const timeout = readWaitForDefault();
  return timeout;
}

void Util::emitCanaryLog(Platform::DebugHandler& handler, std::string const& text) {
  std::string const line =
      fmt::format("CANARY: pid:{} tid:{} {} {}", getpid(), gettid(), handler.name(), text);
  BRELO_TRACE(handler, 1, nullptr, "{}", line);
  syslog(LOG_LOCAL5 | LOG_DEBUG, "%s", line.c_str());
}

void* Util::resolveSym(Platform::DebugHandler& handler, char const* name) {
  void* const program = dlopen(nullptr, RTLD_LAZY);
  if (program == nullptr) BRELO_UTIL_FAIL(handler, "dlopen() failed: {}", dlerror());
  dlerror();
  void* const symbol = dlsym(program, name);
  char const* const error = dlerror();
  lastDlErrorText = error == nullptr ? "" : error;
  lastDlError = error == nullptr ? nullptr : lastDlErrorText.c_str();
  dlclose(program);
  if (lastDlError != nullptr) {
    BRELO_UTIL_TRACE(handler, 1, "symbolName:{} unable to resolve:{}", name, lastDlError);
  } else {
    BRELO_UTIL_TRACE(handler, 5, "sym:{} found at {}", name, DisplayPointer(symbol));
  }
  return symbol;
}

char const* Util::resolveSymError() {
  return std::exchange(lastDlError, nullptr);
}

void Util::includeShmemInCore() {
  constexpr unsigned sharedFileMappings = 1U << 3;
  std::string const path = fmt::format("/proc/{}/coredump_filter", getpid());
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const file(std::fopen(path.c_str(), "r+"),
                                                             std::fclose);
  unsigned filter = 0;
  // The kernel shows the filter in hexadecimal, and takes any base.
  if (file == nullptr || std::fscanf(file.get(), "%x", &filter) < 1) {
    BRELO_UTIL_FAIL(Impl::utilTrace, "fscanf failed for file:{} error:{}", path,
                    Brelo::strerror(errno));
  }
  std::fprintf(file.get(), "%d", static_cast<int>(filter | sharedFileMappings));
}

void* HeapChecker::resolveAllocSym(Platform::DebugHandler& handler) {
  return resolveIfChecked(handler, "HeapChecker_RecordClientAlloc");
}

void* HeapChecker::resolveFreeSym(Platform::DebugHandler& handler) {
  return resolveIfChecked(handler, "HeapChecker_RecordClientFree");
}

}  // namespace Brelo
