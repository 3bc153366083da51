#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "BreloDaemon/Mailbox.h"
#include "BreloDaemon/internal/SocketAddress.h"

namespace BreloDaemon {

/// Looks names up off the loop. `getaddrinfo` can neither be interrupted nor waited for at an end:
/// each lookup has a detached thread, which owns all that it touches and may outlive this.
class Resolver {
 public:
  using Done = std::function<void(std::vector<SocketAddress> addresses, std::error_code error)>;
  using Id = unsigned long;

  Resolver(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
           std::string name);
  Resolver(Resolver const&) = delete;
  Resolver& operator=(Resolver const&) = delete;
  ~Resolver();

  /// `done` is called from a run, and may destroy this. Throws `std::system_error` where there is
  /// no thread to be had.
  Id start(std::string host, std::string service, Done done);
  void cancel(Id id);

 private:
  struct Lookup;

  void launch();
  void finished(Lookup& lookup);
  void rest();

  std::shared_ptr<Brelo::TaskScheduler> scheduler_;
  Brelo::TaskPriority priority_;
  std::string name_;
  Id last_ = 0;
  unsigned running_ = 0;
  std::map<Id, Done> wanted_;
  std::deque<std::unique_ptr<Lookup>> queued_;
  std::optional<Mailbox> mailbox_;  // only while somebody waits: it keeps the loop
};

}  // namespace BreloDaemon
