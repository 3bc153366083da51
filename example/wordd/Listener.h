#pragma once

#include <cstddef>
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
  struct Limits {
    double idleSeconds;   ///< of a client; may be infinity
    std::size_t clients;  ///< at a time, at least 1; further ones wait until they are taken
    std::size_t memory;   ///< bytes for the words of all clients
  };

  /// Port 0 is one of the kernel's choice. Throws std::system_error if the port cannot be had.
  Listener(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, std::uint16_t port,
           Limits const& limits);

  std::uint16_t port() const;

 private:
  void accepted(Descriptor socket) override;
  void ended(std::uint64_t number);

  Limits const limits_;
  std::shared_ptr<MemoryBudget> memory_;
  std::shared_ptr<Brelo::TaskGroup> counting_;
  std::uint64_t accepted_ = 0;
  std::map<std::uint64_t, std::shared_ptr<Connection>> connections_;
};

}  // namespace Wordd
