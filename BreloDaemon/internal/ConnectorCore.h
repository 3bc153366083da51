#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "Brelo/Platform.h"
#include "Brelo/Task.h"
#include "BreloDaemon/Connector.h"
#include "BreloDaemon/Descriptor.h"
#include "BreloDaemon/StopStep.h"
#include "BreloDaemon/internal/Resolver.h"
#include "BreloDaemon/internal/SocketAddress.h"

namespace BreloDaemon {

/// What is behind a Connector.
class Connector::Core {
 public:
  Core(std::shared_ptr<Brelo::TaskScheduler> scheduler, ConnectorOptions const& options);
  Core(Core const&) = delete;
  Core& operator=(Core const&) = delete;
  ~Core();

  void connect(Addresses const& addresses, Handler done);
  std::size_t pending() const { return attempts_.size(); }

 private:
  class Attempt;

  std::shared_ptr<Stream> makeStream(Descriptor fd);
  void stop();
  void ended(Attempt const& attempt);

  std::shared_ptr<Brelo::TaskScheduler> scheduler_;
  ConnectorOptions const options_;
  Resolver resolver_;
  std::list<std::shared_ptr<Attempt>> attempts_;
  std::vector<std::weak_ptr<Stream>> streams_;  // some of them gone
  bool stopping_ = false;
  StopStep step_;
};

/// One connection in the making: a descriptor's event, a timer or the end of a lookup asks for a
/// run, which goes one step on.
class Connector::Core::Attempt final : public Brelo::TimerTask,
                                       public Brelo::Platform::FdEventHandler {
 public:
  Attempt(Core& core, std::vector<std::string> texts, Handler done);

  void cancel();
  void letGo();
  void taskExecute() override;
  void readFdEvent(int) override {}
  void writeFdEvent(int fd) override;
  std::string handlerName() const override { return '"' + taskName() + '"'; }

 private:
  std::optional<std::error_code> step();
  bool lookUp(std::string const& text);
  bool begin(SocketAddress const& address);
  std::optional<std::error_code> next();
  void wait(double limit);
  bool connected();
  void closeSocket();
  void finish(std::error_code error);

  Core* core_;
  Handler done_;
  std::vector<std::string> texts_;        // not read yet, the next one last
  std::vector<SocketAddress> addresses_;  // not tried yet, the next one last
  std::error_code error_;                 // of the last one that failed
  double deadline_;                       // on the clock of `Brelo::time()`
  Resolver::Id lookup_ = 0;               // that is waited for, or 0
  bool writable_ = false;
  bool canceled_ = false;
  Descriptor fd_;
  std::shared_ptr<Brelo::Platform::FdControl> control_;
};

}  // namespace BreloDaemon
