#pragma once

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "Brelo/Platform.h"
#include "Brelo/Task.h"
#include "Brelo/TimerWheelEvent.h"
#include "BreloDaemon/Descriptor.h"
#include "BreloDaemon/Stream.h"
#include "BreloDaemon/internal/CallbackSlot.h"
#include "BreloDaemon/internal/ThreadBuffers.h"

namespace BreloDaemon {

/// What is behind a Stream. It outlives it for the rest of a run whose callback lets go of it.
///
/// A descriptor's event notes its direction and asks for a run; the run writes, reads and calls,
/// each for a bounded time, and then sets the watches to what is wanted next.
class StreamTask final : public Brelo::Task, public Brelo::Platform::FdEventHandler {
 public:
  StreamTask(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
             std::string const& name, Descriptor descriptor);
  ~StreamTask() override;

  /// Keeps the stream alive, and is told at the head of its first run and at the end of its last.
  class Keeper {
   public:
    virtual void streamBegins(StreamTask& stream) = 0;
    virtual void streamEnded(StreamTask& stream) = 0;

   protected:
    ~Keeper() = default;
  };
  void keeperIs(Keeper* keeper, std::list<std::shared_ptr<Stream>>::iterator place) {
    keeper_ = keeper;
    place_ = place;
  }
  std::list<std::shared_ptr<Stream>>::iterator place() const { return place_; }

  // The operations of the stream.
  void receive(Stream::ReceiveHandler handler);
  void receiveLimitIs(std::size_t bytes) { receiveLimit_ = bytes; }
  void readingPausedIs(bool paused);
  bool send(std::string_view const* views, std::size_t count);
  std::size_t unsent() const;
  void waterMarksIs(std::size_t low, std::size_t high);
  void onDrained(std::function<void()> handler) {
    if (!finished_) extras().onDrained.set(std::move(handler));
  }
  void close() { closeFor(StreamEnd::closed); }
  void abort() { end(StreamEnd::aborted); }
  void shutdownSend();
  void halfOpenIs(bool halfOpen) { halfOpen_ = halfOpen; }
  void onReceiveEnd(std::function<void()> handler) {
    if (!finished_) extras().onReceiveEnd.set(std::move(handler));
  }
  void idleLimitIs(std::chrono::nanoseconds limit);
  void onEnd(Stream::EndHandler handler);
  bool ended() const { return endDue_; }
  std::uint64_t bytesReceived() const { return bytesReceived_; }
  std::uint64_t bytesSent() const { return bytesSent_; }
  std::string peerName() const;
  int descriptor() const { return descriptor_.get(); }
  /// The stream is destroyed: nobody is called any more.
  void letGo();

  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;
  void taskExecute() override;
  std::string handlerName() const override { return '"' + taskName() + "\" of " + peerName(); }

 private:
  /// What lives for a run only.
  struct Run {
    ThreadBuffers::Loan gatherBuffer{ThreadBuffers::gathering};
    std::size_t gathered = 0;
  };

  class IdleTimer : public Brelo::TimerWheelEvent {
   public:
    explicit IdleTimer(StreamTask& stream) : stream_(stream) {}
    void timeout() override { stream_.idleTimerFired(); }

    double limit = 0;
    double lastMove = 0;

   private:
    StreamTask& stream_;
  };

  /// What most streams do without.
  struct Extras {
    CallbackSlot<void()> onDrained;
    CallbackSlot<void()> onReceiveEnd;
    std::unique_ptr<IdleTimer> idleTimer;
  };

  Extras& extras();
  bool gone() const { return letGo_ || endDue_; }
  void end(StreamEnd reason, int error = 0);
  void closeFor(StreamEnd reason);
  void finish();
  void closeDescriptor();
  void serve();
  void settle();
  void shutDown();
  void changed();
  bool wantsRun() const;
  void updateWatches();
  void tellDrained();

  bool takesInput() const;
  void receiveSome();
  void handOver(std::string_view bytes);
  void handOverKept();
  void handOverAgain();
  void checkReceiveLimit();
  void endOfInput();

  bool gather(std::string_view const* views, std::size_t count, std::size_t total);
  void writeAll(std::string_view const* views, std::size_t count);
  std::size_t write(iovec const* parts, std::size_t count);
  void keepUnsent(std::string_view bytes);
  void dropSent(std::size_t bytes);
  void flushGathered();
  void flushUnsent();
  void noteCongestion();

  void idleTimerFired();
  void restartIdleTimer();
  void noteMoves();

  ThreadBuffers::User const usesBuffers_;
  Descriptor descriptor_;
  bool isSocket_;
  StreamEnd reason_ = StreamEnd::closed;
  bool readReady_ = false;       // an event has come that no run has served
  bool writeReady_ = false;      // likewise
  bool readsOn_ = false;         // the platform's watch
  bool writesOn_ = false;        // likewise
  bool handOver_ = false;        // what is kept is to be offered again
  bool paused_ = false;          // by the user
  bool congested_ = false;       // from the high water mark down to the low one
  bool drainedDue_ = false;      // the callback is owed
  bool receiveEnded_ = false;    // the end of the input has been seen
  bool halfOpen_ = false;        // the end of the input does not close
  bool shutdownWanted_ = false;  // after what is unsent
  bool shutdownDone_ = false;
  bool closing_ = false;   // after what is unsent, for `reason_`
  bool endDue_ = false;    // ended for `reason_`
  bool finished_ = false;  // and the callback has been called
  bool letGo_ = false;
  bool idleDue_ = false;  // the limit is over, unless something has come meanwhile
  int error_ = 0;
  Run* run_ = nullptr;  // while callbacks are called
  Keeper* keeper_ = nullptr;
  bool begun_ = false;  // the keeper has been told
  std::list<std::shared_ptr<Stream>>::iterator place_;
  std::shared_ptr<Brelo::Platform::FdControl> control_;
  CallbackSlot<std::size_t(std::string_view)> receive_;
  Stream::EndHandler onEnd_;
  std::string kept_;    // received and not consumed
  std::string unsent_;  // the part from `unsentFrom_`
  std::size_t unsentFrom_ = 0;
  std::size_t receiveLimit_ = 1 << 20;
  std::size_t lowWater_ = 16 << 10;
  std::size_t highWater_ = 64 << 10;
  std::uint64_t bytesReceived_ = 0;
  std::uint64_t bytesSent_ = 0;
  std::uint64_t bytesCounted_ = 0;  // of both, told to the statistics
  std::unique_ptr<Extras> extras_;
};

}  // namespace BreloDaemon
