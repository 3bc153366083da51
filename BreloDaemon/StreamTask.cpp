#include "BreloDaemon/internal/StreamTask.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "Brelo/Assert.h"
#include "Brelo/Debug.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/Time.h"
#include "BreloDaemon/internal/SocketAddress.h"

namespace BreloDaemon {

namespace {

Brelo::ModuleTrace const trace("BreloStream");

int openDescriptor(Descriptor const& descriptor) {
  if (!descriptor) BRELO_FAIL("Stream", "needs a descriptor");
  return descriptor.get();
}

bool isSocket(int fd) {
  int type;
  socklen_t size = sizeof type;
  return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 || errno != ENOTSOCK;
}

}  // namespace

StreamTask::StreamTask(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                       Brelo::TaskPriority priority, std::string const& name, Descriptor descriptor)
    : Task(std::move(scheduler), priority, name),
      descriptor_(std::move(descriptor)),
      isSocket_(isSocket(openDescriptor(descriptor_))),
      control_(Brelo::Platform::getFdControl(this)) {
  control_->setReads(false);
  control_->setFd(descriptor_.get());
}

StreamTask::~StreamTask() = default;

void StreamTask::letGo() {
  letGo_ = true;
  keeper_ = nullptr;
  closeDescriptor();
  unscheduleTask();
}

StreamTask::Extras& StreamTask::extras() {
  if (!extras_) extras_ = std::make_unique<Extras>();
  return *extras_;
}

void StreamTask::onEnd(Stream::EndHandler handler) {
  if (!finished_) onEnd_.swap(handler);
}

// A readiness that is known need not be told again at each pass until the run. A group's slice, as
// a rule, brings all runs before the next pass: there only what is told again is turned off.
void StreamTask::readFdEvent(int) {
  bool const known = std::exchange(readReady_, true);
  Brelo::TaskScheduler const& scheduler = *taskScheduler();
  bool const inGroup = &scheduler != &scheduler.root();
  bool const runIsNext = run_ == nullptr && !onRunQueue() && !scheduler.root().suspended() &&
                         (inGroup || !scheduler.schedulerHasRunnableTasks());
  if (run_ == nullptr) scheduleTask();
  if (runIsNext && !known) return;
  readsOn_ = false;
  control_->setReads(false);
}

void StreamTask::writeFdEvent(int) {
  writesOn_ = false;
  writeReady_ = true;
  if (run_ == nullptr) scheduleTask();
}

void StreamTask::taskExecute() {
  struct Running {
    explicit Running(StreamTask& task) : task_(task) { task.run_ = &run_; }
    Running(Running const&) = delete;
    Running& operator=(Running const&) = delete;
    ~Running() { task_.run_ = nullptr; }
    StreamTask& task_;
    Run run_;
  };
  Running const running(*this);
  try {
    serve();
    settle();
  } catch (...) {
    end(StreamEnd::threw);
    try {
      finish();
    } catch (std::exception const& second) {
      BRELO_TRACE(trace, 1, "StreamTask", "{}: after an exception the end threw, too: {}",
                  taskName(), second.what());
    } catch (...) {
    }
    throw;
  }
}

void StreamTask::serve() {
  if (gone()) return;
  if (keeper_ != nullptr && !closing_ && !std::exchange(begun_, true)) keeper_->streamBegins(*this);
  if (std::exchange(writeReady_, false)) flushUnsent();  // none if it is gone
  tellDrained();
  receiveSome();
  flushGathered();
}

void StreamTask::tellDrained() {
  if (gone() || !std::exchange(drainedDue_, false)) return;
  if (extras_ && extras_->onDrained) extras_->onDrained();
}

/// Ends the run: what is due at its end, and what is wanted from the platform next.
void StreamTask::settle() {
  noteMoves();
  if (std::exchange(idleDue_, false) && !gone()) restartIdleTimer();
  if (!gone() && unsent() == 0) {
    if (closing_) {
      end(reason_);
    } else if (shutdownWanted_) {
      shutDown();
    }
  }
  if (!gone()) updateWatches();
  if (endDue_) return finish();
  if (!letGo_ && wantsRun()) scheduleTask();
}

/// After an operation: in a run its end does the same.
void StreamTask::changed() {
  if (run_ != nullptr || gone()) return;
  updateWatches();
  if (wantsRun()) scheduleTask();
}

bool StreamTask::wantsRun() const {
  if (endDue_ || readReady_ || writeReady_) return true;
  if (unsent() == 0 && (closing_ || (shutdownWanted_ && !shutdownDone_))) return true;
  if (handOver_ && !kept_.empty() && takesInput()) return true;
  return drainedDue_ && extras_ && extras_->onDrained;
}

void StreamTask::updateWatches() {
  bool const writes = unsent() > 0 && !writeReady_;
  bool const reads = takesInput() && !receiveEnded_;
  try {
    if (reads != readsOn_ && !readReady_) {
      control_->setReads(reads);
      readsOn_ = reads;
    }
    if (writes && !writesOn_) {
      control_->setWrites(true);
      writesOn_ = true;
    }
  } catch (std::system_error const& error) {
    end(StreamEnd::failed, error.code().value());
  } catch (std::bad_alloc const&) {
    end(StreamEnd::failed, ENOMEM);
  }
}

void StreamTask::closeFor(StreamEnd reason) {
  if (gone() || closing_) return;
  closing_ = true;
  reason_ = reason;
  changed();
}

void StreamTask::shutdownSend() {
  if (!isSocket_) return close();
  shutdownWanted_ = true;
  changed();
}

void StreamTask::shutDown() {
  if (!std::exchange(shutdownDone_, true) && ::shutdown(descriptor_.get(), SHUT_WR) != 0) {
    return end(StreamEnd::failed, errno);
  }
  if (receiveEnded_) end(StreamEnd::peerClosed);
}

/// Closes. The callback follows from a run of its own, or at the end of the present one.
void StreamTask::end(StreamEnd reason, int error) {
  if (gone()) return;
  BRELO_TRACE(trace, 5, "StreamTask", "{} {} ends: {} {}", taskName(), descriptor_.get(),
              toString(reason), error);
  endDue_ = true;
  reason_ = reason;
  error_ = error;
  closeDescriptor();
  if (run_ == nullptr) scheduleTask();
}

void StreamTask::finish() {
  if (letGo_ || std::exchange(finished_, true)) return;
  auto const onEnd = std::exchange(onEnd_, nullptr);
  auto const receive = receive_.take();
  auto const extras = std::move(extras_);
  std::string().swap(kept_);
  std::string().swap(unsent_);
  unsentFrom_ = 0;
  struct TellKeeper {
    ~TellKeeper() {
      if (task.keeper_ != nullptr) std::exchange(task.keeper_, nullptr)->streamEnded(task);
    }
    StreamTask& task;
  };
  TellKeeper const atTheEnd{*this};
  if (onEnd) onEnd(reason_, std::error_code(error_, std::generic_category()));
}

void StreamTask::closeDescriptor() {
  if (extras_ && extras_->idleTimer) {
    extras_->idleTimer->delTimeout(taskScheduler()->root().timerWheel());
  }
  control_->delFd();
  descriptor_.reset();
}

void StreamTask::noteMoves() {
  std::uint64_t const moved = bytesReceived_ + bytesSent_ - bytesCounted_;
  taskWorkPendingIs(static_cast<unsigned>(unsent()));
  if (moved == 0) return;
  bytesCounted_ += moved;
  taskWorkCountInc(moved);
  if (extras_ && extras_->idleTimer) extras_->idleTimer->lastMove = Brelo::time();
}

void StreamTask::idleLimitIs(std::chrono::nanoseconds limit) {
  if (limit <= limit.zero()) BRELO_FAIL("Stream", "idle limit of {} ns", limit.count());
  if (gone()) return;
  auto& timer = extras().idleTimer;
  if (limit == limit.max()) {
    if (timer) timer->delTimeout(taskScheduler()->root().timerWheel());
    timer.reset();
    return;
  }
  if (!timer) timer = std::make_unique<IdleTimer>(*this);
  timer->limit = std::chrono::duration<double>(limit).count();
  timer->lastMove = Brelo::time();
  restartIdleTimer();
}

// Bytes move the time only; the timer follows when it fires. What has come meanwhile and waits in
// the kernel counts, so the end is left to a run that reads first.
void StreamTask::idleTimerFired() {
  auto const& timer = *extras_->idleTimer;
  if (timer.lastMove + timer.limit > Brelo::time()) return restartIdleTimer();
  idleDue_ = true;
  if (run_ == nullptr) scheduleTask();
}

void StreamTask::restartIdleTimer() {
  if (!extras_ || !extras_->idleTimer) return;
  auto& timer = *extras_->idleTimer;
  double const rest = timer.lastMove + timer.limit - Brelo::time();
  if (rest <= 0) return end(StreamEnd::idle);
  timer.setTimeout(taskScheduler()->root().timerWheel(), rest);
}

std::string StreamTask::peerName() const {
  return descriptor_ ? SocketAddress::ofPeer(descriptor_.get()).text() : std::string();
}

}  // namespace BreloDaemon
