#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "Acceptor.h"
#include "Brelo/TaskGroup.h"
#include "Connection.h"

namespace Wordd {

/// Listens on a TCP port of the loopback address and owns the clients' connections, which end
/// with it.
class Listener : public Acceptor {
 public:
  /// Port 0 is one of the kernel's choice. Throws std::system_error if the port cannot be had.
  Listener(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, std::uint16_t port,
           double idleSeconds);

  std::uint16_t port() const;

 private:
  void accepted(Descriptor socket) override;

  double idleSeconds_;
  std::shared_ptr<Brelo::TaskGroup> counting_;
  std::uint64_t accepted_ = 0;
  std::map<std::uint64_t, std::shared_ptr<Connection>> connections_;
};

}  // namespace Wordd
