#include "Connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

namespace Wordd {

namespace {

bool isPassing(int error) {
  return error == EAGAIN || error == EINTR;
}

}  // namespace

Connection::Connection(std::shared_ptr<Brelo::TaskScheduler> scheduler,
                       std::shared_ptr<Brelo::TaskGroup> const& counting, Descriptor socket,
                       std::string const& name, double idleSeconds, std::function<void()> ended)
    : FileDescriptorTask(scheduler, Brelo::TaskPriority::normal, name),
      socket_(std::move(socket)),
      idleSeconds_(idleSeconds),
      ended_(std::move(ended)),
      count_(std::make_shared<CountTask>(counting, name + ":count", [this] { textWorkedOff(); })),
      idle_(std::make_shared<Timeout>(std::move(scheduler), name + ":idle", [this] { ended_(); })) {
  // One record for all clients that have been, instead of one for each.
  taskStatsNameIs("connection");
  idle_->taskStatsNameIs("connection:idle");
  taskWatchFdIs(socket_.get());
  waitForClient();
}

Connection::~Connection() {
  taskWatchFdDel();
}

// One read a run, so that every client gets its turn: what is left makes the socket readable again.
void Connection::taskExecuteReadable() {
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
  if (textComplete_) {
    answer_ = count_->answer();
    scheduleTaskWritable();
  } else {
    taskWatchReadableIs(true);
  }
  waitForClient();
}

void Connection::taskExecuteWritable() {
  auto const left = std::string_view(answer_).substr(sent_);
  ssize_t const sent = ::send(socket_.get(), left.data(), left.size(), MSG_NOSIGNAL);
  if (sent < 0 && !isPassing(errno)) return ended_();
  if (sent > 0) {
    sent_ += static_cast<std::size_t>(sent);
    waitForClient();
  }
  if (sent_ == answer_.size()) return ended_();
  taskWatchWritableIs(true);
}

}  // namespace Wordd
