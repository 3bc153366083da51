#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string_view>
#include <system_error>

#include "BreloDaemon/Descriptor.h"

namespace BreloDaemon::Impl {

/// A socket for datagrams to the service manager, and the manager's address.
class NotifySocket {
 public:
  /// `address` as it stands in NOTIFY_SOCKET. Throws `std::system_error`.
  explicit NotifySocket(std::string_view address);

  /// Sends it whole, or gives the error. In a forked child nothing is sent.
  std::error_code send(std::string_view message) const;

 private:
  pid_t const process_;
  sockaddr_un address_{};
  socklen_t length_;
  Descriptor fd_;
};

}  // namespace BreloDaemon::Impl
