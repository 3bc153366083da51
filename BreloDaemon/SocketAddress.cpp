#include "BreloDaemon/internal/SocketAddress.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <system_error>

namespace BreloDaemon {

namespace {

constexpr std::size_t pathOffset = offsetof(sockaddr_un, sun_path);

bool startsWith(std::string_view text, std::string_view beginning) {
  return text.substr(0, beginning.size()) == beginning;
}

bool parsePort(std::string_view text, in_port_t& port) {
  std::uint16_t number = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  port = htons(number);
  return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

SocketAddress::SocketAddress(sockaddr const* address, socklen_t size)
    : size_(std::min<socklen_t>(size, sizeof address_)) {
  std::memcpy(&address_, address, size_);
}

SocketAddress SocketAddress::unixAddress(std::string_view path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  bool const abstract = startsWith(path, "@");
  // A path ends with a zero, an abstract name with its length.
  if (path.size() < 2 || path.size() + (abstract ? 0 : 1) > sizeof address.sun_path) return {};
  if (path.find('\0') != path.npos) return {};
  std::copy(path.begin(), path.end(), address.sun_path);
  if (abstract) address.sun_path[0] = '\0';
  auto const size = static_cast<socklen_t>(pathOffset + path.size() + (abstract ? 0 : 1));
  return {reinterpret_cast<sockaddr const*>(&address), size};
}

SocketAddress SocketAddress::parse(std::string_view text) {
  if (startsWith(text, "unix:")) return unixAddress(text.substr(5));
  if (startsWith(text, "/")) return unixAddress(text);
  auto const colon = text.rfind(':');
  if (colon == text.npos) return {};
  in_port_t port;
  if (!parsePort(text.substr(colon + 1), port)) return {};
  std::string host(text.substr(0, colon));
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = port;
    auto const percent = host.find('%');
    if (percent != host.npos) {
      address.sin6_scope_id = if_nametoindex(host.c_str() + percent + 1);
      if (address.sin6_scope_id == 0) return {};
      host.resize(percent);
    }
    if (inet_pton(AF_INET6, host.c_str(), &address.sin6_addr) != 1) return {};
    return {reinterpret_cast<sockaddr const*>(&address), sizeof address};
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = port;
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) return {};
  return {reinterpret_cast<sockaddr const*>(&address), sizeof address};
}

SocketAddress SocketAddress::asked(int fd, int (*call)(int, sockaddr*, socklen_t*)) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (call(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) return {};
  return {reinterpret_cast<sockaddr const*>(&address), size};
}

SocketAddress SocketAddress::ofPeer(int fd) {
  return asked(fd, [](int of, sockaddr* address, socklen_t* size) {
    return ::getpeername(of, address, size);
  });
}

SocketAddress SocketAddress::ofSocket(int fd) {
  auto const found = asked(fd, [](int of, sockaddr* address, socklen_t* size) {
    return ::getsockname(of, address, size);
  });
  if (!found) throw std::system_error(errno, std::generic_category(), "the address of a socket");
  return found;
}

std::string SocketAddress::path() const {
  if (family() != AF_UNIX || size_ <= pathOffset) return {};
  auto const& address = reinterpret_cast<sockaddr_un const&>(address_);
  return std::string(address.sun_path, strnlen(address.sun_path, size_ - pathOffset));
}

int SocketAddress::port() const {
  if (family() == AF_INET) return ntohs(reinterpret_cast<sockaddr_in const&>(address_).sin_port);
  if (family() == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6 const&>(address_).sin6_port);
  return 0;
}

std::string SocketAddress::text() const {
  if (size_ == 0) return {};
  if (family() == AF_UNIX) {
    auto const& address = reinterpret_cast<sockaddr_un const&>(address_);
    if (size_ <= pathOffset || address.sun_path[0] != '\0') return "unix:" + path();
    return "unix:@" + std::string(address.sun_path + 1, size_ - pathOffset - 1);
  }
  char host[INET6_ADDRSTRLEN] = {};
  if (family() == AF_INET) {
    auto const& address = reinterpret_cast<sockaddr_in const&>(address_);
    inet_ntop(AF_INET, &address.sin_addr, host, sizeof host);
    return std::string(host) + ":" + std::to_string(port());
  }
  if (family() != AF_INET6) return {};
  auto const& address = reinterpret_cast<sockaddr_in6 const&>(address_);
  inet_ntop(AF_INET6, &address.sin6_addr, host, sizeof host);
  std::string const scope =
      address.sin6_scope_id != 0 ? "%" + std::to_string(address.sin6_scope_id) : "";
  return "[" + std::string(host) + scope + "]:" + std::to_string(port());
}

}  // namespace BreloDaemon
