#include "timeline/Follower.h"

#include <algorithm>

#include "Failure.h"

namespace Tool {

namespace {

using std::chrono::milliseconds;

constexpr std::uint64_t capacityMax = 1'000'000;  // that a ring grows to by itself
constexpr milliseconds historyPause{200};
constexpr milliseconds stallsPause{500};
constexpr milliseconds reconnectPause{500};
constexpr milliseconds finishMax{5'000};

}  // namespace

Follower::Follower(Target const& target, std::uint64_t capacity, TraceWriter& writer,
                   int& processes)
    : target_(target),
      capacity_(capacity),
      writer_(writer),
      processes_(processes),
      process_(++processes),
      connection_(target.connect()) {}

Follower::Clock::time_point Follower::wakeAt() const {
  if (!connection_) return historyAt_;
  if (asked_ != Asked::nothing) return connection_->deadline();
  return hasStalls_ ? std::min(historyAt_, stallsAt_) : historyAt_;
}

void Follower::step() {
  try {
    if (!connection_) reconnect();
    if (!connection_) return;
    while (auto const answer = connection_->advance())
      handle(*answer);
    if (asked_ == Asked::nothing) ask();
  } catch (Failure const& failure) {
    lose(failure.what());
  }
}

void Follower::finish() {
  auto const end = Clock::now() + finishMax;
  try {
    if (connection_ && asked_ != Asked::nothing) handle(connection_->wait());
    for (caughtUp_ = false; connection_ && !caughtUp_ && Clock::now() < end;) {
      handleHistory(readHistory(connection_->ask(historyRequest())));
    }
    if (connection_ && hasStalls_ && timeline_) {
      timeline_->addStalls(readDocument(connection_->ask("stalls"), "stalls"), true);
    }
  } catch (Failure const& failure) {
    lose(failure.what());
  }
  endProcess();
}

void Follower::ask() {
  auto const now = Clock::now();
  if (now >= historyAt_) {
    connection_->send(historyRequest());
    asked_ = Asked::history;
  } else if (hasStalls_ && now >= stallsAt_) {
    connection_->send("stalls");
    asked_ = Asked::stalls;
  }
}

std::string Follower::historyRequest() const {
  std::string request = "history capacity=" + std::to_string(capacity_);
  if (timeline_ && timeline_->next()) request += " since=" + std::to_string(*timeline_->next());
  return request;
}

void Follower::handle(Answer const& answer) {
  if (std::exchange(asked_, Asked::nothing) == Asked::stalls) {
    stallsAt_ = Clock::now() + stallsPause;
    hasStalls_ = !answer.error;
    if (hasStalls_ && timeline_) {
      timeline_->addStalls(readDocument(answer.text, "stalls"), false);
    }
  } else {
    if (answer.error) throw Failure(*answer.error);
    handleHistory(readHistory(answer.text));
  }
  writer_.flush();
}

void Follower::handleHistory(HistoryDocument const& history) {
  trouble_.reset();
  historyAt_ = Clock::now();
  if (timeline_ && !timeline_->head().sameProcess(history.head)) {
    endProcess();
    process_ = ++processes_;
    return;  // what was asked for was on from an event of the process before
  }
  if (!timeline_) {
    timeline_ = std::make_unique<ProcessTimeline>(writer_, process_, history.head);
  }
  bool const lost = timeline_->add(history) > 0;
  if (lost && capacity_ < capacityMax) capacity_ = std::min(2 * capacity_, capacityMax);
  caughtUp_ = history.events.empty() || history.next() > history.recorded;
  // A quarter of the ring is what may come until the next time.
  std::uint64_t const share = history.events.size() * 4 / std::max<std::uint64_t>(capacity_, 1);
  if (caughtUp_) historyAt_ += historyPause / (1 + share);
}

void Follower::endProcess() {
  if (timeline_) timeline_->finish();
  timeline_.reset();
}

void Follower::lose(std::string const& reason) {
  if (timeline_ && !trouble_) timeline_->gap("lost the daemon: " + reason);
  trouble_ = reason;
  connection_.reset();
  asked_ = Asked::nothing;
  historyAt_ = Clock::now() + reconnectPause;
}

void Follower::reconnect() {
  if (Clock::now() < historyAt_) return;
  connection_.emplace(target_.connect(milliseconds(0)));
  hasStalls_ = true;
}

}  // namespace Tool
