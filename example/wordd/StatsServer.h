#pragma once

#include <memory>
#include <set>
#include <string>

#include "Acceptor.h"
#include "Brelo/TaskScheduler.h"

namespace Wordd {

/// Answers each client of a Unix stream socket with the scheduler's statistics as one JSON
/// document, however slow the client reads. The socket's file goes with the server, and so do the
/// clients that are still reading.
class StatsServer : public Acceptor {
 public:
  /// A file that stands at `path` is replaced. Throws std::system_error.
  StatsServer(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, std::string path);
  ~StatsServer() override;

 private:
  void accepted(Descriptor socket) override;

  std::string path_;
  std::shared_ptr<std::set<int>> exports_ = std::make_shared<std::set<int>>();  // descriptors
};

}  // namespace Wordd
