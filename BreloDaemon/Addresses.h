#pragma once

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace BreloDaemon {

/// One address or several, as texts.
///
/// | Address | To listen at | To connect to |
/// |---|---|---|
/// | "127.0.0.1:7000", "[::1]:7000" | TCP; port 0 is one of the kernel's choice | TCP |
/// | "*:7000" | TCP on all addresses of both families | |
/// | "/run/x.sock", "unix:PATH" | a Unix socket | a Unix socket |
/// | "unix:@NAME" | the same, in no file system | the same |
/// | "systemd", "systemd:NAME" | the sockets handed over by the service manager, or those of a name
/// | | | "host.example:7000", "host:service" | | TCP, to the addresses of the name one after the
/// other |
class Addresses {
 public:
  Addresses(char const* address) : texts_{address} {}
  Addresses(std::string address) : texts_{std::move(address)} {}
  Addresses(std::initializer_list<std::string> addresses) : texts_(addresses) {}
  Addresses(std::vector<std::string> addresses) : texts_(std::move(addresses)) {}

  std::vector<std::string> const& texts() const { return texts_; }

 private:
  std::vector<std::string> texts_;
};

}  // namespace BreloDaemon
