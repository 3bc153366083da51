#include "Brelo/UtilSockets.h"

#include <fcntl.h>
#include <netnsaid.h>
#include <sched.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>

#include "Brelo/UtilFiles.h"
#include "Brelo/system/OwnedFd.h"
#include "Brelo/system/UtilTrace.h"

namespace Brelo::Util {

using Impl::OwnedFd;
using Impl::utilTrace;
using Platform::DebugHandler;

int socket(DebugHandler& handler, int domain, int type, int protocol) {
  static constexpr char path[] = "/proc/self/ns/net";
  OwnedFd localNsFd(open(path, O_RDONLY | O_CLOEXEC));
  if (localNsFd.get() < 0) {
    if (errno != ENOENT && errno != EACCES) return -1;
    BRELO_UTIL_TRACE(handler, 2, "failed to open {} reason: {}", path, Brelo::strerror(errno));
    int const sd = ::socket(domain, type, protocol);
    if (sd < 0) return -1;
    BRELO_UTIL_TRACE(handler, 2, "success opening local socket, sd:{}", sd);
    return sd;
  }
  BRELO_UTIL_TRACE(handler, 2, "success opening {}", path);

  bool const switched = setnsByName(DEFAULT_NS, CLONE_NEWNET) == 0;
  if (switched) {
    BRELO_UTIL_TRACE(handler, 2, "setnsByName() to {} success", DEFAULT_NS);
  } else {
    BRELO_UTIL_TRACE(handler, 2, "setnsByName() to {} failure: {}", DEFAULT_NS,
                     netnsGetTracebuffer());
  }
  errno = 0;
  OwnedFd sd(::socket(domain, type, protocol));
  int const socketError = errno;
  BRELO_UTIL_TRACE(handler, 2, "{} opening {} socket: {}", sd.get() < 0 ? "failed" : "success",
                   switched ? DEFAULT_NS : "local", Brelo::strerror(socketError));

  if (switched && setns(localNsFd.get(), CLONE_NEWNET) != 0) {
    BRELO_THROW(handler, "Brelo::Util", "failed to switch back to caller's namespace: {}",
                Brelo::strerror(errno));
  }
  if (close(localNsFd.release()) != 0) {
    BRELO_THROW(handler, "Brelo::Util", "failed to close( localNsFd ): {}", Brelo::strerror(errno));
  }
  errno = socketError;
  return sd.release();
}

socklen_t createSockaddr(DebugHandler& handler, void* address, std::string const& name) {
  sockaddr_un unixAddress = {};
  unixAddress.sun_family = AF_UNIX;
  char* const abstractName = unixAddress.sun_path + 1;
  std::size_t const room = sizeof unixAddress.sun_path - 1;
  name.copy(abstractName, room);
  std::memcpy(address, &unixAddress, sizeof unixAddress);
  BRELO_UTIL_TRACE(handler, 2, "using abstract socket {}", name);
  return static_cast<socklen_t>(sizeof unixAddress.sun_family + 1 + strnlen(abstractName, room));
}

int createAndBindSocket(DebugHandler& handler, std::string const& name) {
  OwnedFd sd(socket(handler, AF_UNIX, SOCK_SEQPACKET, 0));
  if (sd.get() < 0) BRELO_UTIL_FAIL(handler, "socket() failed: {}", Brelo::strerror(errno));
  int const on = 1;
  if (setsockopt(sd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    BRELO_UTIL_FAIL(handler, "setsockopt() failed: {}", Brelo::strerror(errno));
  }
  sockaddr_un address;
  socklen_t const length = createSockaddr(handler, &address, name);
  BRELO_UTIL_TRACE(handler, 2, "using abstract socket {}", name);
  if (bind(sd.get(), reinterpret_cast<sockaddr*>(&address), length) != 0) {
    BRELO_THROW(handler, "Brelo::Util", "bind() failed for socket:{} error: {}", name,
                Brelo::strerror(errno));
  }
  return sd.release();
}

int setSocketSendBufferSize(int sd, int size) {
  if (sd < 0) BRELO_UTIL_FAIL(utilTrace, "invalid sd: {}", sd);
  if (size < 1) BRELO_UTIL_FAIL(utilTrace, "invalid size: {}", size);
  int const result = setsockopt(sd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  if (result < 0) {
    BRELO_UTIL_FAIL(utilTrace, "unable to set socket {} buffer size to {} bytes: {}", sd, size,
                    Brelo::strerror(errno));
  }
  return result;
}

std::uint32_t SYSTEM_MAX_SEND_BUFFER_SIZE() {
  static std::atomic<std::uint32_t> cached{0};  // 0 while not known
  if (std::uint32_t const known = cached) return known;
  std::uint32_t limit = 0x800000;
  static char const path[] = "/proc/sys/net/core/wmem_max";
  if (fileExists(utilTrace, path)) {
    std::string const text = fileRead(utilTrace, path, true);
    try {
      limit = static_cast<std::uint32_t>(std::stoi(text));
    } catch (std::exception const& error) {
      BRELO_UTIL_FAIL(utilTrace, "unable to convert string: {} to int: {}", text, error.what());
    }
  }
  return cached = limit;
}

}  // namespace Brelo::Util
