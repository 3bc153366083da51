// System calls that fail on purpose, in a program that this library is loaded into by LD_PRELOAD.
//
//   FAULT=epoll_ctl:3:12   the third call of `epoll_ctl` fails with errno 12
//   FAULT_COUNTS=FILE      how often each was called, a line each, written at the end
//   FAULT_LIBRARIES=1      only calls of libraries fail or count, not those of the program itself
//
// A call is known by the name of the C library's function. Of `fcntl` only the making of
// descriptors fails.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct Count {
  char const* call = nullptr;
  std::atomic<int> calls{0};
};

class Plan {
 public:
  static Plan& instance() {
    static Plan plan;
    return plan;
  }

  bool fails(char const* call, void const* caller) {
    if (librariesOnly_ && isProgram(caller)) return false;
    int const nth = ++countOf(call).calls;
    if (nth != nth_ || std::strcmp(call, call_.data()) != 0) return false;
    errno = error_;
    return true;
  }

 private:
  Plan() {
    if (char const* const order = std::getenv("FAULT")) {
      std::sscanf(order, "%31[^:]:%d:%d", call_.data(), &nth_, &error_);
    }
    librariesOnly_ = std::getenv("FAULT_LIBRARIES") != nullptr;
    dl_iterate_phdr(
        [](dl_phdr_info* program, std::size_t, void* self) {
          static_cast<Plan*>(self)->noteProgram(*program);
          return 1;  // the program comes first
        },
        this);
  }

  ~Plan() {
    char const* const path = std::getenv("FAULT_COUNTS");
    if (path == nullptr) return;
    std::FILE* const file = std::fopen(path, "w");
    for (Count const& count : counts_) {
      if (count.call != nullptr) std::fprintf(file, "%s %d\n", count.call, count.calls.load());
    }
    std::fclose(file);
  }

  void noteProgram(dl_phdr_info const& program) {
    for (int i = 0; i < program.dlpi_phnum; ++i) {
      auto const& segment = program.dlpi_phdr[i];
      if (segment.p_type != PT_LOAD) continue;
      begin_ = std::min(begin_, program.dlpi_addr + segment.p_vaddr);
      end_ = std::max(end_, program.dlpi_addr + segment.p_vaddr + segment.p_memsz);
    }
  }

  bool isProgram(void const* caller) const {
    auto const address = reinterpret_cast<std::uintptr_t>(caller);
    return address >= begin_ && address < end_;
  }

  Count& countOf(char const* call) {
    for (Count& count : counts_) {
      if (count.call == nullptr) count.call = call;  // one thread at a time comes here first
      if (std::strcmp(count.call, call) == 0) return count;
    }
    std::abort();
  }

  std::array<char, 32> call_{};
  int nth_ = 0;
  int error_ = 0;
  bool librariesOnly_ = false;
  std::uintptr_t begin_ = UINTPTR_MAX;
  std::uintptr_t end_ = 0;
  std::array<Count, 64> counts_;
};

bool fails(char const* call, void const* caller) {
  return Plan::instance().fails(call, caller);
}

}  // namespace

/// Defines the function for the whole process.
#define INTERPOSE(function, parameters, ...)                                                     \
  extern "C" int function parameters {                                                           \
    static auto const real = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function)); \
    return fails(#function, __builtin_return_address(0)) ? -1 : real(__VA_ARGS__);               \
  }
#define INTERPOSE_TRANSFER(function, parameters, ...)                                            \
  extern "C" ssize_t function parameters {                                                       \
    static auto const real = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function)); \
    return fails(#function, __builtin_return_address(0)) ? -1 : real(__VA_ARGS__);               \
  }

// clang-format off
INTERPOSE(accept4, (int fd, sockaddr* address, socklen_t* size, int flags), fd, address, size, flags)
INTERPOSE(bind, (int fd, sockaddr const* address, socklen_t size) noexcept, fd, address, size)
INTERPOSE(connect, (int fd, sockaddr const* address, socklen_t size), fd, address, size)
INTERPOSE(dup, (int fd) noexcept, fd)
INTERPOSE(epoll_create1, (int flags) noexcept, flags)
INTERPOSE(epoll_ctl, (int set, int operation, int fd, epoll_event* event) noexcept, set, operation, fd, event)
INTERPOSE(epoll_pwait2, (int set, epoll_event* events, int count, timespec const* limit, sigset_t const* mask), set, events, count, limit, mask)
INTERPOSE(epoll_wait, (int set, epoll_event* events, int count, int limit), set, events, count, limit)
INTERPOSE(eventfd, (unsigned value, int flags) noexcept, value, flags)
INTERPOSE(flock, (int fd, int operation) noexcept, fd, operation)
INTERPOSE(getsockname, (int fd, sockaddr* address, socklen_t* size) noexcept, fd, address, size)
INTERPOSE(getsockopt, (int fd, int level, int name, void* value, socklen_t* size) noexcept, fd, level, name, value, size)
INTERPOSE(listen, (int fd, int count) noexcept, fd, count)
INTERPOSE(lstat, (char const* path, struct stat* status) noexcept, path, status)
INTERPOSE(pipe2, (int* ends, int flags) noexcept, ends, flags)
INTERPOSE(poll, (pollfd* all, nfds_t count, int limit), all, count, limit)
INTERPOSE(ppoll, (pollfd* all, nfds_t count, timespec const* limit, sigset_t const* mask), all, count, limit, mask)
INTERPOSE(setsockopt, (int fd, int level, int name, void const* value, socklen_t size) noexcept, fd, level, name, value, size)
INTERPOSE(shutdown, (int fd, int how) noexcept, fd, how)
INTERPOSE(signalfd, (int fd, sigset_t const* mask, int flags) noexcept, fd, mask, flags)
INTERPOSE(socket, (int domain, int type, int protocol) noexcept, domain, type, protocol)
INTERPOSE(socketpair, (int domain, int type, int protocol, int* ends) noexcept, domain, type, protocol, ends)
INTERPOSE(timerfd_create, (clockid_t clock, int flags) noexcept, clock, flags)
INTERPOSE(timerfd_settime, (int fd, int flags, itimerspec const* time, itimerspec* before) noexcept, fd, flags, time, before)
INTERPOSE(unlink, (char const* path) noexcept, path)
INTERPOSE(waitid, (idtype_t type, id_t id, siginfo_t* info, int options), type, id, info, options)
INTERPOSE_TRANSFER(read, (int fd, void* data, size_t size), fd, data, size)
INTERPOSE_TRANSFER(recv, (int fd, void* data, size_t size, int flags), fd, data, size, flags)
INTERPOSE_TRANSFER(send, (int fd, void const* data, size_t size, int flags), fd, data, size, flags)
INTERPOSE_TRANSFER(sendmsg, (int fd, msghdr const* message, int flags), fd, message, flags)
INTERPOSE_TRANSFER(sendto, (int fd, void const* data, size_t size, int flags, sockaddr const* to, socklen_t length), fd, data, size, flags, to, length)
INTERPOSE_TRANSFER(write, (int fd, void const* data, size_t size), fd, data, size)
INTERPOSE_TRANSFER(writev, (int fd, iovec const* parts, int count), fd, parts, count)
// clang-format on

/// The descriptor is closed all the same, as the kernel does it.
extern "C" int close(int fd) {
  static auto const real = reinterpret_cast<decltype(&close)>(dlsym(RTLD_NEXT, "close"));
  int const result = real(fd);
  return fails("close", __builtin_return_address(0)) ? -1 : result;
}

extern "C" int open(char const* path, int flags, ...) {
  static auto const real = reinterpret_cast<decltype(&open)>(dlsym(RTLD_NEXT, "open"));
  mode_t mode = 0;
  if ((flags & (O_CREAT | __O_TMPFILE)) != 0) {
    va_list rest;
    va_start(rest, flags);
    mode = va_arg(rest, mode_t);
    va_end(rest);
  }
  return fails("open", __builtin_return_address(0)) ? -1 : real(path, flags, mode);
}

extern "C" int fcntl(int fd, int command, ...) {
  static auto const real = reinterpret_cast<decltype(&fcntl)>(dlsym(RTLD_NEXT, "fcntl"));
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);  // an int comes in the same register
  va_end(rest);
  bool const makes = command == F_DUPFD || command == F_DUPFD_CLOEXEC;
  return makes && fails("fcntl", __builtin_return_address(0)) ? -1 : real(fd, command, argument);
}
