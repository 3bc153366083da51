#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "Acceptor.h"
#include "Brelo/TaskScheduler.h"
#include "SocketFile.h"
#include "Timeout.h"

namespace Wordd {

/// Answers each client of a Unix stream socket with the scheduler's statistics as one JSON
/// document, however slow the client reads, within its time. Each answer holds a copy of the
/// statistics, so only a few clients are answered at a time, and the others wait. The socket's
/// file goes with the server, and so do the clients that are still reading.
class StatsServer : public Acceptor {
 public:
  static constexpr std::size_t readersMax = 8;

  /// Who has not read everything after `secondsToRead`, which may be infinity, is left.
  StatsServer(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, SocketFile file,
              double secondsToRead);
  ~StatsServer() override;

 private:
  /// A handle on the socket that the export closes when it is done.
  struct Reader {
    Descriptor socket;
    std::shared_ptr<Timeout> limit;
  };

  void accepted(Descriptor socket) override;
  void ended(std::uint64_t number);

  SocketFile file_;
  double const secondsToRead_;
  std::uint64_t accepted_ = 0;
  std::map<std::uint64_t, Reader> readers_;
};

}  // namespace Wordd
