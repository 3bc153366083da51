#pragma once

#include <list>
#include <memory>
#include <string>

#include "BreloDaemon/FunctionTask.h"
#include "BreloDaemon/FunctionTimer.h"
#include "BreloDaemon/Listener.h"
#include "BreloObserve/Monitor.h"
#include "BreloObserve/StallDetector.h"
#include "BreloObserve/StatsServer.h"
#include "BreloObserve/internal/Answers.h"
#include "BreloObserve/internal/StatsSession.h"

namespace BreloObserve {

/// What is behind a StatsServer: its clients, and what they share.
class StatsServer::Core final : public Impl::StatsSession::Server {
 public:
  Core(std::shared_ptr<Brelo::TaskSchedulerRoot> root, std::string const& address,
       StatsServerOptions const& options);
  ~Core();

  std::string const& address() const { return listener_.addresses().front(); }
  std::size_t clients() const;

 private:
  Brelo::TaskSchedulerRoot& root() override { return *root_; }
  Brelo::TaskPriority priority() const override { return options_.priority; }
  Impl::Answers const& answers() const override { return answers_; }
  void requestWaits() override { answering_.schedule(); }
  void followHistoryWishes() override;
  void watchSending() override;
  void ended(Impl::StatsSession& session) override;

  void begin(BreloDaemon::Stream& client);
  bool hasRoom();
  void answerNext();
  void dropThoseThatDoNotRead();

  std::string const path_;  // of the socket file, if we make it
  std::shared_ptr<Brelo::TaskSchedulerRoot> const root_;
  StatsServerOptions const options_;
  std::unique_ptr<Monitor> const ownMonitor_;
  std::unique_ptr<StallDetector> const ownStallDetector_;
  Impl::Answers const answers_;
  unsigned ownHistory_ = 0;     // the capacity without our wishes
  unsigned raisedHistory_ = 0;  // what we have made of it
  std::list<Impl::StatsSession> sessions_;
  BreloDaemon::FunctionTask answering_;
  BreloDaemon::FunctionTimer sendLimit_;
  BreloDaemon::Listener listener_;
};

}  // namespace BreloObserve
