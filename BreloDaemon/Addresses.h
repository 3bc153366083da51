#pragma once

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace BreloDaemon {

/// One address or several, as text.
///
///     127.0.0.1:7000, [::1]:7000      TCP; a listener's port 0 is one of the kernel's choice
///     *:7000                          a listener's: TCP on all addresses of both families
///     host.example:7000, host:smtp    a connector's: TCP, the addresses of the name in turn
///     /run/x.sock, unix:PATH          a Unix socket
///     unix:@NAME                      the same, in no file system
///     systemd, systemd:NAME           a listener's: the sockets that the service manager has
///                                     handed over, or those of a name
class Addresses {
 public:
  /// What a text says is looked at when it is used.
  /// @{
  Addresses(char const* address) : texts_{address} {}
  Addresses(std::string address) : texts_{std::move(address)} {}
  Addresses(std::initializer_list<std::string> addresses) : texts_(addresses) {}
  Addresses(std::vector<std::string> addresses) : texts_(std::move(addresses)) {}
  /// @}

  std::vector<std::string> const& texts() const { return texts_; }  ///< as given

 private:
  std::vector<std::string> texts_;
};

}  // namespace BreloDaemon
