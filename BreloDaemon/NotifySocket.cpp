#include "BreloDaemon/internal/NotifySocket.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>

namespace BreloDaemon::Impl {

NotifySocket::NotifySocket(std::string_view address)
    : process_(::getpid()),
      length_(static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size())) {
  auto const fail = [&](int error) {
    throw std::system_error(error, std::generic_category(),
                            "NOTIFY_SOCKET=" + std::string(address));
  };
  bool const abstract = address.substr(0, 1) == "@";
  if (!abstract && address.substr(0, 1) != "/") fail(EAFNOSUPPORT);
  if (address.size() < 2) fail(EINVAL);
  if (address.size() >= sizeof address_.sun_path) fail(ENAMETOOLONG);
  address_.sun_family = AF_UNIX;
  address.copy(address_.sun_path, address.size());
  if (abstract) {
    address_.sun_path[0] = '\0';
  } else {
    ++length_;  // with the zero behind the path
  }
  fd_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd_) fail(errno);
}

std::error_code NotifySocket::send(std::string_view message) const {
  if (::getpid() != process_) return {};
  ssize_t sent;
  do {
    sent = ::sendto(fd_.get(), message.data(), message.size(), MSG_NOSIGNAL,
                    reinterpret_cast<sockaddr const*>(&address_), length_);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return {errno, std::generic_category()};
  return {};
}

}  // namespace BreloDaemon::Impl
