#include "BreloDaemon/internal/ListenSocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "BreloDaemon/internal/DirectoryLock.h"
#include "BreloDaemon/internal/SocketAddress.h"

namespace BreloDaemon {

namespace {

[[noreturn]] void throwFor(std::string const& address, int error, char const* what) {
  throw std::system_error(error, std::generic_category(), address + ": " + what);
}

void check(bool good, std::string const& address, char const* what) {
  if (!good) throwFor(address, errno, what);
}

void switchOn(Descriptor const& fd, int level, int option, std::string const& address) {
  int const on = 1;
  check(::setsockopt(fd.get(), level, option, &on, sizeof on) == 0, address, "setsockopt");
}

Descriptor newSocket(int family) {
  return Descriptor(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

ListenSocket listenInternet(SocketAddress const& address, ListenSettings const& settings) {
  std::string const text = address.text();
  ListenSocket made{newSocket(address.family()), {}};
  check(static_cast<bool>(made.fd), text, "socket");
  switchOn(made.fd, SOL_SOCKET, SO_REUSEADDR, text);
  if (settings.reusePort) switchOn(made.fd, SOL_SOCKET, SO_REUSEPORT, text);
  if (address.family() == AF_INET6) switchOn(made.fd, IPPROTO_IPV6, IPV6_V6ONLY, text);
  // What is sent in pieces has been gathered already. Connections inherit it.
  switchOn(made.fd, IPPROTO_TCP, TCP_NODELAY, text);
  check(::bind(made.fd.get(), address.get(), address.size()) == 0, text, "bind");
  check(::listen(made.fd.get(), settings.backlog) == 0, text, "listen");
  return made;
}

/// Both families at one port. A machine may be without the newer one.
std::vector<ListenSocket> listenAnywhere(std::string const& port, ListenSettings const& settings) {
  std::vector<ListenSocket> made;
  made.push_back(listenInternet(SocketAddress::parse("0.0.0.0" + port), settings));
  int const bound = SocketAddress::ofSocket(made.front().fd.get()).port();
  auto const six = SocketAddress::parse("[::]:" + std::to_string(bound));
  try {
    made.push_back(listenInternet(six, settings));
  } catch (std::system_error const& error) {
    if (error.code().value() != EAFNOSUPPORT && error.code().value() != EADDRNOTAVAIL) throw;
  }
  return made;
}

/// A socket file that nobody listens at any more. Anything else stays, and is an error.
void removeDeadSocket(SocketAddress const& address) {
  std::string const path = address.path();
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return;
    throwFor(path, errno, "lstat");
  }
  if (!S_ISSOCK(status.st_mode)) throwFor(path, EADDRINUSE, "is there and no socket");
  Descriptor const probe = newSocket(AF_UNIX);
  check(static_cast<bool>(probe), path, "socket");
  if (::connect(probe.get(), address.get(), address.size()) == 0 || errno != ECONNREFUSED) {
    throwFor(path, EADDRINUSE, "is in use");
  }
  check(::unlink(path.c_str()) == 0 || errno == ENOENT, path, "unlink");
}

/// Under a lock against others that start here: one that is bound and does not listen yet looks
/// dead.
ListenSocket listenAtPath(SocketAddress const& address, ListenSettings const& settings) {
  std::string const path = address.path();
  ListenSocket made{newSocket(AF_UNIX), {}};
  check(static_cast<bool>(made.fd), path, "socket");
  DirectoryLock const lock(path);  // let go of before a file that failed is removed
  removeDeadSocket(address);
  // The file begins with the rights of its socket, which leaves no moment with more of them.
  if (settings.unixMode) {
    check(::fchmod(made.fd.get(), *settings.unixMode) == 0, path, "fchmod");
  }
  check(::bind(made.fd.get(), address.get(), address.size()) == 0, path, "bind");
  made.file = SocketFile(path);
  if (settings.unixMode) check(::chmod(path.c_str(), *settings.unixMode) == 0, path, "chmod");
  check(::listen(made.fd.get(), settings.backlog) == 0, path, "listen");
  return made;
}

ListenSocket listenAbstract(SocketAddress const& address, ListenSettings const& settings) {
  std::string const text = address.text();
  ListenSocket made{newSocket(AF_UNIX), {}};
  check(static_cast<bool>(made.fd), text, "socket");
  check(::bind(made.fd.get(), address.get(), address.size()) == 0, text, "bind");
  check(::listen(made.fd.get(), settings.backlog) == 0, text, "listen");
  return made;
}

std::vector<ListenSocket> listenHandedOver(std::string const& address) {
  std::string const name = address == "systemd" ? "" : address.substr(address.find(':') + 1);
  std::vector<ListenSocket> sockets;
  for (Descriptor& fd : takeHandedOverSockets(name))
    sockets.push_back({std::move(fd), {}});
  if (sockets.empty()) throwFor(address, ENOENT, "no such socket has been handed over");
  for (ListenSocket const& each : sockets) {
    int listens = 0;
    socklen_t size = sizeof listens;
    int const fd = each.fd.get();
    check(::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0, address,
          "is no socket");
    if (listens == 0) throwFor(address, EINVAL, "does not listen");
  }
  return sockets;
}

}  // namespace

SocketFile::SocketFile(std::string path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) return;
  path_ = std::move(path);
  device_ = status.st_dev;
  inode_ = status.st_ino;
  process_ = ::getpid();
}

SocketFile::SocketFile(SocketFile&& other) noexcept
    : path_(std::exchange(other.path_, {})),
      device_(other.device_),
      inode_(other.inode_),
      process_(other.process_) {}

SocketFile& SocketFile::operator=(SocketFile other) noexcept {
  std::swap(path_, other.path_);
  std::swap(device_, other.device_);
  std::swap(inode_, other.inode_);
  std::swap(process_, other.process_);
  return *this;
}

// Without the lock somebody may be about to put another one there. Then the file stays: whoever
// starts next finds it dead.
void SocketFile::remove() {
  std::string const path = std::exchange(path_, {});
  if (path.empty() || process_ != ::getpid()) return;
  DirectoryLock const lock(path, DirectoryLock::aMoment);
  struct stat status;
  if (!lock || ::lstat(path.c_str(), &status) != 0) return;
  if (status.st_dev == device_ && status.st_ino == inode_) ::unlink(path.c_str());
}

std::vector<ListenSocket> listenAt(std::string const& address, ListenSettings const& settings) {
  if (address == "systemd" || address.rfind("systemd:", 0) == 0) return listenHandedOver(address);
  bool const anywhere = address.rfind("*:", 0) == 0;
  auto const parsed = SocketAddress::parse(anywhere ? "0.0.0.0" + address.substr(1) : address);
  if (!parsed) throwFor(address, EINVAL, "not an address to listen at");
  if (anywhere) return listenAnywhere(address.substr(1), settings);
  std::vector<ListenSocket> made;
  if (parsed.family() != AF_UNIX) {
    made.push_back(listenInternet(parsed, settings));
  } else if (parsed.path().empty()) {
    made.push_back(listenAbstract(parsed, settings));
  } else {
    made.push_back(listenAtPath(parsed, settings));
  }
  return made;
}

}  // namespace BreloDaemon
