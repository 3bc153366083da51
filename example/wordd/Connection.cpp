#include "Connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <string_view>
#include <utility>

#include "Checked.h"
#include "Trace.h"

namespace Wordd {

Connection::Connection(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                       std::shared_ptr<Brelo::TaskGroup> const& counting,
                       std::shared_ptr<MemoryBudget> memory, Descriptor socket,
                       std::string const& name, double idleSeconds, std::function<void()> ended)
    : FileDescriptorTask(scheduler, Brelo::TaskPriority::normal, name),
      socket_(std::move(socket)),
      idleSeconds_(idleSeconds),
      ended_(std::move(ended)),
      count_(std::make_shared<CountTask>(counting, name + ":count", std::move(memory),
                                         [this] { textWorkedOff(); })),
      idle_(std::make_shared<Timeout>(std::move(scheduler), name + ":idle", [this] { idle(); })) {
  // One record for all clients that have been, instead of one for each.
  taskStatsNameIs("connection");
  idle_->taskStatsNameIs("connection:idle");
  taskWatchFdIs(socket_.get());
  waitForClient();
}

Connection::~Connection() {
  taskWatchFdDel();
}

/// Memory that runs out for this client, or a watch that the kernel refuses, is nobody else's end.
template <class Step>
void Connection::endIfFails(Step step) {
  try {
    step();
  } catch (std::exception const& error) {
    BRELO_TRACE(trace, 1, "Connection", "{}: ended: {}", taskName(), error.what());
    ended_();
  }
}

void Connection::taskExecuteReadable() {
  endIfFails([this] { receive(); });
}

void Connection::taskExecuteWritable() {
  endIfFails([this] { sendAnswer(); });
}

// One read a run, so that every client gets its turn: what is left makes the socket readable again.
void Connection::receive() {
  std::array<char, 16 << 10> buffer;
  std::size_t const wanted = std::min(buffer.size(), count_->room());
  ssize_t const got = ::recv(socket_.get(), buffer.data(), wanted, 0);
  if (got < 0) {
    if (!isPassing(errno)) ended_();
    return;
  }
  idle_->stopTimerTask();
  if (got == 0) {
    textComplete_ = true;
    count_->scheduleTask();
  } else {
    auto const size = static_cast<std::size_t>(got);
    taskWorkCountInc(size);
    count_->append({buffer.data(), size});
  }
  if (textComplete_ || count_->room() == 0) taskWatchReadableIs(false);
}

void Connection::textWorkedOff() {
  endIfFails([this] {
    if (textComplete_) {
      answer_ = count_->answer();
      sendAnswer();  // at once: as a rule there is room
    } else {
      taskWatchReadableIs(true);
      waitForClient();
    }
  });
}

void Connection::sendAnswer() {
  auto const left = std::string_view(answer_).substr(sent_);
  ssize_t const sent = ::send(socket_.get(), left.data(), left.size(), MSG_NOSIGNAL);
  if (sent < 0 && !isPassing(errno)) return ended_();
  if (sent > 0) sent_ += static_cast<std::size_t>(sent);
  if (sent_ == answer_.size()) return ended_();
  taskWatchWritableIs(true);
  waitForClient();
}

// The client may have done its part while this process was stopped, or had no time for it.
void Connection::idle() {
  endIfFails([this] {
    pollfd look{socket_.get(), textComplete_ ? short{POLLOUT} : short{POLLIN}, 0};
    if (::poll(&look, 1, 0) <= 0) return ended_();
    textComplete_ ? scheduleTaskWritable() : scheduleTaskReadable();
    waitForClient();
  });
}

}  // namespace Wordd
