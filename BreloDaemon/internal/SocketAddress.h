#pragma once

#include <sys/socket.h>

#include <string>
#include <string_view>

namespace BreloDaemon {

/// An address of the Internet, of either family, or of a Unix socket, and its text:
/// "127.0.0.1:7000", "[::1]:7000", "unix:/path", "unix:@abstract".
class SocketAddress {
 public:
  SocketAddress() = default;  ///< none
  SocketAddress(sockaddr const* address, socklen_t size);

  /// Reads a text; "/path" means "unix:/path". None if it is not an address: names of hosts are
  /// not looked up.
  static SocketAddress parse(std::string_view text);
  /// Of an open socket. None if there is no peer any more; a socket's own throws
  /// `std::system_error`.
  /// @{
  static SocketAddress ofPeer(int fd);
  static SocketAddress ofSocket(int fd);
  /// @}

  explicit operator bool() const { return size_ > 0; }
  int family() const { return address_.ss_family; }
  sockaddr const* get() const { return reinterpret_cast<sockaddr const*>(&address_); }
  socklen_t size() const { return size_; }
  /// The path of a Unix socket in the file system; empty for any other.
  std::string path() const;
  int port() const;          ///< 0 if it has none
  std::string text() const;  ///< empty for none

 private:
  static SocketAddress asked(int fd, int (*call)(int, sockaddr*, socklen_t*));
  static SocketAddress unixAddress(std::string_view path);

  sockaddr_storage address_{};
  socklen_t size_ = 0;
};

}  // namespace BreloDaemon
