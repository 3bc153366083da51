#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Brelo/Task.h"
#include "Day.h"

namespace Soak {

Actor::Actor(Day& itsDay, std::shared_ptr<Branch> const& branch, unsigned char level,
             char const* kind, char const* suffix)
    : day(itsDay),
      task(fmt::format("{}{}#{}", kind, level, day.model.begun)),
      job{task + suffix, fmt::format("{}{}{}", kind, level, suffix), branch, level} {
  day.model.begin(job);
}

Actor::~Actor() {
  day.model.end(job);
}

namespace {

template <class Base>
class Worker : public Actor, public Base {
 public:
  static constexpr bool isTimer = std::is_same_v<Base, Brelo::TimerTask>;

  Worker(Day& itsDay, std::shared_ptr<Branch> const& branch, unsigned char level)
      : Actor(itsDay, branch, level, isTimer ? "timer" : "plain"),
        Base(branch->scheduler, Brelo::TaskPriority(level), task) {
    this->taskStatsNameIs(job.statsName);
    if constexpr (isTimer)
      job.timerRunning = [this] { return std::isfinite(this->timerRemaining()); };
  }

  void taskExecute() override {
    day.observe();
    day.model.run(job);
    if (day.below(10) < (isTimer ? 7 : 3)) request();
    if (day.below(3) == 0) day.operate();
  }
  void handleResetStats() override { day.model.reset(job); }

  void disturb() override {
    enum : unsigned { suspends, unschedules, requests };
    unsigned const what = day.below(6);
    if (what >= requests) return request();
    if (what == unschedules) {
      this->unscheduleTask();
      return day.model.unschedule(job);
    }
    this->taskSuspendedIs(!job.suspended);
    day.model.suspend(job, !job.suspended);
  }

 private:
  void request() {
    if constexpr (isTimer) {
      if (day.below(8) != 0) return requestDelayed();
    }
    this->scheduleTask();
    day.model.schedule(job);
  }

  void requestDelayed() {
    double const delays[] = {0, -1, INFINITY};
    unsigned const which = day.below(40);
    double const delay = which < 3 ? delays[which] : std::pow(10, day.below(6000) / 1000.0 - 3);
    double const before = Brelo::time(), old = job.armed ? job.due : INFINITY;
    double most = delay;
    if (unsigned const how = day.below(3); how == 0 || std::isinf(delay)) {
      this->scheduleTaskDelay(delay);
    } else if (how == 1 && delay > 0) {
      this->scheduleTaskJitterUp(delay, 50);
      most *= 1.5;
    } else {
      this->scheduleTaskLowestDelay(delay);
      bool const kept = delay != 0 && this->currentExpirationTime() == old;
      expect(!kept || job.queued || Brelo::time() + delay > old - Model::slack, "{} was kept",
             task);
      expect(kept || delay <= 0 || before + delay < old + Model::slack,
             "{} was due in {} s and asked for in {} s, and is due in {} s", task, old - before,
             delay, this->currentExpirationTime() - before);
      if (kept || (job.queued && delay != 0)) return;
    }
    if (delay == 0) return day.model.schedule(job);
    if (std::isinf(delay)) return day.model.stop(job);
    double const due = this->currentExpirationTime(), now = Brelo::time();
    expect(due >= before + delay && due <= now + most + Model::slack,
           "{} is due in {} s, asked for {} to {}", task, due - before, delay, most);
    day.model.arm(job, due, now);
  }
};

/// A descriptor task on one end of a small socket pair; the other end is the outside world. Byte
/// number n of either direction is a hash of n.
class Stream : public Actor, public Brelo::FileDescriptorTask {
 public:
  Stream(Day& itsDay, std::shared_ptr<Branch> const& branch, unsigned char level)
      : Actor(itsDay, branch, level, "stream", ":read"),
        FileDescriptorTask(branch->scheduler, Brelo::TaskPriority(level), task),
        write_{task + ":write", fmt::format("stream{}:write", level), branch, level} {
    job.predicted = write_.predicted = false;
    day.model.begin(write_);
    taskStatsNameIs(fmt::format("stream{}", level));
    scheduleTaskWritable();
    expect(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends_) == 0, "no socket pair");
    day.openDescriptors += 2;
    int const least = 1;
    for (int end : ends_)
      setsockopt(end, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    taskWatchFdIs(ends_[own]);
  }
  ~Stream() override {
    taskWatchFdDel();
    closeEnd(own);
    if (!peerClosed()) closeEnd(peer);
    day.model.end(write_);
  }

  void taskExecuteReadable() override {
    day.observe();
    day.model.run(job);
    ssize_t const got = take(own);
    expect(got > 0 || taken_[own] == given_[peer], "{} finds nothing of {} bytes", task,
           given_[peer] - taken_[own]);
    expect(got != 0 || peerClosed(), "{} ended early", task);
    if (got == 0) day.end(this);
    if (day.below(4) == 0) day.operate();
  }
  void taskExecuteWritable() override {
    day.observe();
    day.model.run(write_);
    give(own);
    if (day.below(4) == 0) taskWatchWritableIs(true);
  }
  void handleResetStats() override {
    day.model.reset(write_);
    day.model.reset(job);
  }

  void disturb() override {
    enum : unsigned { suspends = 8, wantsToWrite = 16, runsWrite = 24, runsRead = 32, closes = 33 };
    enum : unsigned { reads = 50, all = 80 };
    unsigned const what = day.below(all);
    if (what < suspends) {
      // Read interest goes too, or what is ready would keep the loop from waiting.
      taskWatchReadableIs(job.suspended);
      taskSuspendedIs(!job.suspended);
      write_.suspended = job.suspended = !job.suspended;
    } else if (what < wantsToWrite) {
      taskWatchWritableIs(true);
    } else if (what < runsWrite) {
      scheduleTaskWritable();
    } else if (what < runsRead) {
      if (taskWatchReadable()) scheduleTaskReadable();
    } else if (peerClosed()) {
      return;
    } else if (what < closes) {
      while (take(peer) > 0) {
      }
      expect(taken_[peer] == given_[own], "{} lost bytes", write_.name);
      closeEnd(peer);
    } else {
      what < reads ? static_cast<void>(take(peer)) : give(peer);
    }
  }
  void skipped() const override {
    if (job.suspended || job.home->root->suspended) return;
    pollfd ready{ends_[own], POLLOUT, 0};
    expect(taken_[own] == given_[peer] && !peerClosed(), "time was skipped with {} readable", task);
    expect(!taskWatchWritable() || poll(&ready, 1, 0) == 0, "time was skipped with {} writable",
           task);
  }

 private:
  static constexpr int own = 0, peer = 1;

  static char byteAt(std::uint64_t n) {
    return static_cast<char>((n + 1) * 0x9E3779B97F4A7C15 >> 56);
  }
  bool peerClosed() const { return ends_[peer] < 0; }
  void closeEnd(int end) {
    close(std::exchange(ends_[end], -1));
    --day.openDescriptors;
  }
  void give(int end) {
    char buffer[3000];
    std::size_t const size = 1 + day.below(sizeof buffer);
    for (std::size_t i = 0; i < size; ++i)
      buffer[i] = byteAt(given_[end] + i);
    given_[end] += std::max<ssize_t>(0, write(ends_[end], buffer, size));
  }
  ssize_t take(int end) {
    char buffer[3000];
    ssize_t const got = read(ends_[end], buffer, 1 + day.below(sizeof buffer));
    for (ssize_t i = 0; i < got; ++i, ++day.bytes, ++taken_[end])
      expect(buffer[i] == byteAt(taken_[end]), "byte {} of {} is wrong", taken_[end], task);
    return got;
  }

  Job write_;
  int ends_[2];
  std::uint64_t given_[2] = {}, taken_[2] = {};
};

}  // namespace

std::shared_ptr<Actor> makeActor(Day& day, std::shared_ptr<Branch> const& branch,
                                 unsigned char level, Kind kind) {
  if (kind == Kind::plain) return std::make_shared<Worker<Brelo::Task>>(day, branch, level);
  if (kind == Kind::timer) return std::make_shared<Worker<Brelo::TimerTask>>(day, branch, level);
  return std::make_shared<Stream>(day, branch, level);
}

}  // namespace Soak
