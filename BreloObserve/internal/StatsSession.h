#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "Brelo/TaskSchedulerRoot.h"
#include "BreloDaemon/Stream.h"
#include "BreloObserve/internal/Answers.h"

namespace BreloObserve::Impl {

/// One client of a statistics server: takes its lines one at a time, and sends the answers.
///
/// While a request waits or is being answered the next line is not looked at, and nothing more is
/// read; nor while 1 MiB is unsent. So what a client can make the daemon hold is bounded, however
/// it behaves. It lives in the server's list until its stream has ended.
class StatsSession {
 public:
  /// What sessions share.
  class Server {
   public:
    virtual Brelo::TaskSchedulerRoot& root() = 0;
    virtual Brelo::TaskPriority priority() const = 0;
    virtual Answers const& answers() const = 0;
    virtual void requestWaits() = 0;         ///< `answer()` is to be called, in a run of its own
    virtual void followHistoryWishes() = 0;  ///< after one has changed
    virtual void watchSending() = 0;         ///< `stillSends` is to be called now and then
    virtual void ended(StatsSession& session) = 0;  ///< destroys it

   protected:
    ~Server() = default;
  };

  StatsSession(Server& server, BreloDaemon::Stream& client);
  StatsSession(StatsSession const&) = delete;
  StatsSession& operator=(StatsSession const&) = delete;

  bool isOf(BreloDaemon::Stream const& client) const { return &client_ == &client; }
  bool requestWaits() const { return asked_ && report_ == nullptr; }
  /// Has asked nothing since then, and has nothing to take.
  bool silentSince(double time) const {
    return !asked_ && !dismissed_ && answeredAt_ <= time && client_.unsent() == 0;
  }
  /// Answers the request that waits, or begins to.
  void answer();
  /// Drops a client that takes nothing for so many seconds. False if there is nothing to be taken.
  bool stillSends(double now, double limit);
  /// Tells the client why, and listens to it no more.
  void dismiss(std::string_view why);
  bool dismissed() const { return dismissed_; }
  /// The orderly end: what has been made for the client is sent, within so much time.
  void stop(std::chrono::nanoseconds limit);
  /// How many events it wants the history to hold.
  /// @{
  void historyWishIs(unsigned events) { historyWish_ = events; }
  unsigned historyWish() const { return historyWish_; }
  /// @}

 private:
  std::size_t received(std::string_view bytes);
  void inputEnds();
  bool mayTakeLine() const { return !asked_ && client_.unsent() < unsentMax; }
  void serve(Request const& request);
  void beginReport();
  std::size_t relay(std::string_view bytes);
  void reportEnds(BreloDaemon::StreamEnd reason);
  void answered();

  void sendDocument(std::string_view text);
  void sendPiece(std::string_view bytes);
  void sendError(std::string_view why);
  void noteSending();

  static constexpr std::size_t unsentMax = 1 << 20;

  Server& server_;
  BreloDaemon::Stream& client_;
  std::string line_;  // of the request
  bool asked_ = false;
  bool framed_ = false;
  bool inputEnded_ = false;
  bool dismissed_ = false;
  bool watched_ = false;
  std::size_t leftover_ = 0;  // bytes that the stream keeps for us
  std::uint64_t takenBefore_ = 0;
  double movedAt_ = 0;
  double answeredAt_;  // the latest request, or when it came
  unsigned historyWish_ = 0;
  std::shared_ptr<BreloDaemon::Stream> report_;  // from an export
  std::shared_ptr<bool> reportFailed_;
  bool reportBegun_ = false;
};

}  // namespace BreloObserve::Impl
