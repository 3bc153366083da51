#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "Brelo/TaskSchedulerRoot.h"
#include "Listener.h"
#include "Output.h"
#include "SignalTask.h"
#include "StatsServer.h"

namespace Wordd {

/// The parts of the daemon, and what signals do to them.
class Daemon {
 public:
  struct Options {
    std::uint16_t port;
    Listener::Limits limits;
    std::string statsPath;  ///< none if empty
    double statsSeconds;    ///< that a reader of the statistics has
  };

  explicit Daemon(Options const& options);

  /// Serves until SIGTERM or SIGINT.
  void run();

 private:
  void handle(int signal);
  void print(std::function<void(std::ostream&)> const& report);
  void end();
  void goOnAfter(std::exception const& failure);

  // A root of our own and not the thread's, which would stay, and its timers with it.
  std::shared_ptr<Brelo::TaskSchedulerRoot> scheduler_;
  std::shared_ptr<Output> output_;
  std::shared_ptr<Listener> listener_;
  std::shared_ptr<StatsServer> stats_;
  std::shared_ptr<SignalTask> signals_;
  bool ended_ = false;
  double failuresSince_ = 0;
  int failures_ = 0;
};

}  // namespace Wordd
