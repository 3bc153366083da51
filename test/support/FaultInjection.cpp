#include "support/FaultInjection.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <new>
#include <utility>

#include "Zel/Trace.h"

namespace BreloTest {

namespace {

thread_local Faults* planned = nullptr;

/// Whether this call of the function is to fail, with `errno` set.
bool failed(char const* function) {
  if (planned == nullptr) return false;
  auto const plan = planned->find(function);
  if (plan == planned->end()) return false;
  int const error = plan->second.front();
  plan->second.erase(plan->second.begin());
  if (plan->second.empty()) planned->erase(plan);
  if (error != 0) errno = error;
  return error != 0;
}

}  // namespace

FaultInjection::FaultInjection(Faults faults) : faults_(std::move(faults)) {
  planned = &faults_;
}

FaultInjection::~FaultInjection() {
  planned = nullptr;
}

void tryFaults(std::vector<FaultRow> const& rows) {
  std::size_t tried = 0;
  for (auto const& row : rows) {
    SCOPED_TRACE(row.what);
    unsigned const before = openDescriptors();
    {
      FaultInjection injection(row.faults);
      row.check();
      if (injection.left().empty()) ++tried;
      for (auto const& plan : injection.left())
        ADD_FAILURE() << plan.first << " was not called often enough";
    }
    EXPECT_EQ(openDescriptors(), before) << "descriptors";
  }
  std::printf("faults tried: %zu of %zu\n", tried, rows.size());
  std::fflush(stdout);  // a child that a test forks later would print it again
}

unsigned openDescriptors() {
  std::filesystem::directory_iterator const all("/proc/self/fd");
  return static_cast<unsigned>(std::distance(begin(all), end(all))) - 1;  // less the listing's own
}

}  // namespace BreloTest

/// Defines the function for the whole program. `failure` is what it returns with a fault.
#define INTERPOSE(result, function, failure, parameters, ...)                                    \
  extern "C" result function parameters {                                                        \
    static auto const real = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function)); \
    return BreloTest::failed(#function) ? (failure) : real(__VA_ARGS__);                         \
  }

/// What closes does so also where it fails, as the kernel's `close` does.
#define INTERPOSE_CLOSE(function, type)                                                          \
  extern "C" int function(type handle) {                                                         \
    static auto const real = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function)); \
    int const result = real(handle);                                                             \
    return BreloTest::failed(#function) ? -1 : result;                                           \
  }

// clang-format off
INTERPOSE(int, bind, -1, (int fd, sockaddr const* address, socklen_t length), fd, address, length)
INTERPOSE(int, accept4, -1, (int fd, sockaddr* address, socklen_t* size, int flags), fd, address, size, flags)
INTERPOSE(int, chmod, -1, (char const* path, mode_t mode), path, mode)
INTERPOSE(int, fchmod, -1, (int fd, mode_t mode), fd, mode)
INTERPOSE(int, epoll_create1, -1, (int flags), flags)
INTERPOSE(int, epoll_ctl, -1, (int set, int operation, int fd, epoll_event* event), set, operation, fd, event)
INTERPOSE(int, epoll_pwait2, -1, (int set, epoll_event* events, int most, timespec const* limit, sigset_t const* mask), set, events, most, limit, mask)
INTERPOSE(FILE*, fopen, nullptr, (char const* path, char const* mode), path, mode)
INTERPOSE(FILE*, fopen64, nullptr, (char const* path, char const* mode), path, mode)  // the file streams' own
INTERPOSE(int, fstat, -1, (int fd, struct stat* status), fd, status)
INTERPOSE(int, ftruncate, -1, (int fd, off_t size), fd, size)
INTERPOSE(char*, getcwd, nullptr, (char* buffer, size_t size), buffer, size)
INTERPOSE(int, mkdir, -1, (char const* path, mode_t mode), path, mode)
INTERPOSE(DIR*, opendir, nullptr, (char const* path), path)
INTERPOSE(ssize_t, read, -1, (int fd, void* data, size_t size), fd, data, size)
INTERPOSE(dirent*, readdir, nullptr, (DIR* dir), dir)
INTERPOSE(ssize_t, readlink, -1, (char const* path, char* text, size_t size), path, text, size)
INTERPOSE(ssize_t, recv, -1, (int fd, void* data, size_t size, int flags), fd, data, size, flags)
INTERPOSE(int, rmdir, -1, (char const* path), path)
INTERPOSE(ssize_t, send, -1, (int fd, void const* data, size_t size, int flags), fd, data, size, flags)
INTERPOSE(int, setns, -1, (int fd, int type), fd, type)
INTERPOSE(int, setsockopt, -1, (int fd, int level, int name, void const* value, socklen_t size), fd, level, name, value, size)
INTERPOSE(int, socket, -1, (int domain, int type, int protocol), domain, type, protocol)
INTERPOSE(int, stat, -1, (char const* path, struct stat* status), path, status)
INTERPOSE(int, unlink, -1, (char const* path), path)
INTERPOSE(ssize_t, write, -1, (int fd, void const* data, size_t size), fd, data, size)
INTERPOSE_CLOSE(close, int)
INTERPOSE_CLOSE(closedir, DIR*)
// clang-format on

extern "C" int open(char const* path, int flags, ...) {
  static auto const real = reinterpret_cast<decltype(&open)>(dlsym(RTLD_NEXT, "open"));
  mode_t mode = 0;
  if ((flags & (O_CREAT | __O_TMPFILE)) != 0) {
    va_list rest;
    va_start(rest, flags);
    mode = va_arg(rest, mode_t);
    va_end(rest);
  }
  return BreloTest::failed("open") ? -1 : real(path, flags, mode);
}

extern "C" int fcntl(int fd, int command, ...) {
  static auto const real = reinterpret_cast<decltype(&fcntl)>(dlsym(RTLD_NEXT, "fcntl"));
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);  // an int comes in the same register
  va_end(rest);
  return BreloTest::failed("fcntl") ? -1 : real(fd, command, argument);
}

void* operator new(std::size_t size) {
  static auto const real = reinterpret_cast<void* (*)(std::size_t)>(dlsym(RTLD_NEXT, "_Znwm"));
  return BreloTest::failed("new") ? throw std::bad_alloc() : real(size);
}

/// A host's own need not keep `errno`.
void Zel::formatAndWriteTraceString(char const* facility, char const* file, int line,
                                    char const* func, char const* message, std::size_t length,
                                    FacilityLevel level) {
  static auto const real = reinterpret_cast<decltype(&Zel::formatAndWriteTraceString)>(
      dlsym(RTLD_NEXT, "_ZN3Zel25formatAndWriteTraceStringEPKcS1_iS1_S1_mt"));
  real(facility, file, line, func, message, length, level);
  errno = ENOTRECOVERABLE;
}
