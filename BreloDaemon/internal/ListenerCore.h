#pragma once

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "Brelo/Task.h"
#include "Brelo/TaskScheduler.h"
#include "BreloDaemon/Listener.h"
#include "BreloDaemon/StopStep.h"
#include "BreloDaemon/internal/CallbackSlot.h"
#include "BreloDaemon/internal/ListenSocket.h"
#include "BreloDaemon/internal/StreamTask.h"

namespace BreloDaemon {

/// What is behind a Listener. It outlives it for the rest of a handler that destroys it.
class Listener::Core final : public std::enable_shared_from_this<Core>, StreamTask::Keeper {
 public:
  Core(std::shared_ptr<Brelo::TaskScheduler> scheduler, Addresses const& addresses,
       StreamHandler onStream, ListenerOptions const& options);

  std::vector<std::string> const& addresses() const { return addresses_; }
  int port() const { return port_; }
  std::size_t connections() const { return streams_.size(); }
  void stopAccepting();
  void close();
  void onStop(StreamHandler stop) { onStop_.set(std::move(stop)); }
  /// Everything ends here and now.
  void letGo();

 private:
  class Acceptor;
  class RetryTask;

  void streamBegins(StreamTask& task) override;
  void streamEnded(StreamTask& task) override;
  void take(Descriptor fd);
  void pauseFor(int error);
  void resume();
  void updateWatches();
  bool accepts() const;

  StreamHandler onStream_;
  CallbackSlot<void(Stream&)> onStop_;
  ListenerOptions const options_;
  std::shared_ptr<Brelo::TaskGroup> group_;
  std::vector<ListenSocket> sockets_;
  std::vector<std::string> addresses_;
  int port_ = 0;
  std::vector<std::shared_ptr<Acceptor>> acceptors_;
  std::shared_ptr<RetryTask> retry_;
  std::list<std::shared_ptr<Stream>> streams_;
  bool paused_ = false;
  bool closing_ = false;
  StopStep step_;
};

/// A listening socket's task.
class Listener::Core::Acceptor final : public Brelo::FileDescriptorTask {
 public:
  Acceptor(Core& core, std::shared_ptr<Brelo::TaskScheduler> scheduler, int fd);

  void letGo();
  void taskExecuteReadable() override;
  void taskExecuteWritable() override {}

 private:
  Core* core_;
};

/// Goes on accepting after a while.
class Listener::Core::RetryTask final : public Brelo::TimerTask {
 public:
  RetryTask(Core& core, std::shared_ptr<Brelo::TaskScheduler> scheduler);

  void taskExecute() override { core_.resume(); }

 private:
  Core& core_;
};

}  // namespace BreloDaemon
