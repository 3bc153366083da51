#include "Session.h"

#include <algorithm>
#include <utility>

namespace Wordd {

namespace {

using BreloDaemon::Stream;

// Some microseconds of work: how often the inner loop asks whether its time is up.
constexpr std::size_t step = 512;

}  // namespace

void Session::begin(Stream& client, std::shared_ptr<Brelo::TaskGroup> const& counting,
                    std::shared_ptr<MemoryBudget> memory, std::chrono::nanoseconds idleLimit) {
  auto const session = std::make_shared<Session>(client, counting, std::move(memory), idleLimit);
  client.halfOpenIs(true);  // the answer comes after the text
  client.receive([session](std::string_view bytes) { return session->receive(bytes); });
  client.onReceiveEnd([session] { session->textComplete(); });
  client.idleLimitIs(idleLimit);
}

Session::Session(Stream& client, std::shared_ptr<Brelo::TaskGroup> const& counting,
                 std::shared_ptr<MemoryBudget> memory, std::chrono::nanoseconds idleLimit)
    : client_(client),
      idleLimit_(idleLimit),
      words_(std::move(memory)),
      count_(counting, Brelo::TaskPriority::low, "count",
             [this](Brelo::TaskImpl& task) { count(task); }) {}

std::size_t Session::receive(std::string_view bytes) {
  bytes = bytes.substr(0, queueMax - queue_.size());
  queue_.append(bytes);
  if (queue_.size() == queueMax) client_.readingPausedIs(true);
  client_.idleLimitIs(std::chrono::nanoseconds::max());
  count_.task().taskWorkPendingIs(static_cast<unsigned>(queue_.size() - counted_));
  count_.schedule();
  return bytes.size();
}

void Session::textComplete() {
  textComplete_ = true;
  client_.idleLimitIs(std::chrono::nanoseconds::max());
  count_.schedule();
}

void Session::count(Brelo::TaskImpl& task) {
  std::size_t const before = counted_;
  do {  // the step before the question: a task that is always told to yield still gets on
    auto const piece = std::string_view(queue_).substr(counted_, step);
    words_.add(piece);
    counted_ += piece.size();
  } while (counted_ < queue_.size() && !task.taskShouldYield());
  task.taskWorkCountInc(counted_ - before);
  task.taskWorkPendingIs(static_cast<unsigned>(queue_.size() - counted_));
  counted_ < queue_.size() ? task.scheduleTask() : workedOff();
}

void Session::workedOff() {
  queue_.clear();
  counted_ = 0;
  client_.idleLimitIs(idleLimit_);
  if (textComplete_) {
    client_.send(words_.answer());
    client_.close();
  } else {
    client_.readingPausedIs(false);
  }
}

}  // namespace Wordd
