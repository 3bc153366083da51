#include "top/Watched.h"

#include <algorithm>
#include <utility>

#include "Failure.h"
#include "HistoryDocument.h"
#include "Text.h"
#include "top/Line.h"

namespace Tool {

namespace {

constexpr std::size_t loadsMax = 1000;
constexpr std::size_t eventsMax = 200;
constexpr std::size_t answerBytesMax = std::size_t{64} << 20;

/// Where to look: the innermost function of the program itself, which has `main`, and behind it
/// where exactly it was, in which library's function.
std::string placeOf(Json const& frames) {
  std::string program;
  for (auto const& frame : frames) {
    if (textOf(frame, "function") == "main") program = textOf(frame, "module");
  }
  std::string innermost;
  for (auto const& frame : frames) {
    std::string const function = textOf(frame, "function");
    if (function.empty()) continue;
    if (innermost.empty()) innermost = function;
    if (program.empty()) break;
    if (textOf(frame, "module") != program) continue;
    return function == innermost ? function : function + ", at " + innermost;
  }
  return innermost.empty() ? "?" : innermost;
}

}  // namespace

Watched::Watched(std::string path, Clock::duration interval)
    : path_(std::move(path)), interval_(interval) {}

Watched::Clock::time_point Watched::deadline() const {
  if (!outstanding_.empty()) return connection_->deadline();
  if (clearWanted_) return Clock::time_point();
  return paused_ ? Clock::time_point::max() : next_;
}

Watched::Clock::duration Watched::silence(Clock::time_point now) const {
  return outstanding_.empty() ? Clock::duration::zero() : now - asked_;
}

void Watched::advance(Clock::time_point now) {
  try {
    if (!connection_ && now >= next_ && !paused_) {
      // A daemon that dies and hangs in turn is not asked more often than one that lives.
      next_ = now + interval_;
      Connection::Limits limits;
      limits.connect = limits.connect.zero();
      limits.bytes = answerBytesMax;
      connection_.emplace(path_, limits);
      nextEvent_ = 0;
      askAll(now);
    }
    // Also while nothing is outstanding: the daemon may close.
    while (connection_) {
      auto const answer = connection_->advance();
      if (!answer) break;
      Request const request = outstanding_.front();
      outstanding_.pop_front();
      handleAnswer(request, *answer);
    }
    if (connection_ && outstanding_.empty()) {
      if (clearWanted_) {
        ask(Request::clear, "clear", now);
        clearWanted_ = false;
        askAll(now);
      } else if (now >= next_ && !paused_) {
        next_ = std::max(next_ + interval_, now + interval_ / 2);
        askAll(now);
      }
    }
  } catch (Failure const& failure) {
    trouble_ = failure.what();
    connection_.reset();
    outstanding_.clear();
    clearWanted_ = false;
    next_ = now + interval_;
  }
}

void Watched::clear() {
  clearWanted_ = connection_.has_value();
}

void Watched::ask(Request request, std::string const& line, Clock::time_point now) {
  if (outstanding_.empty()) asked_ = now;
  outstanding_.push_back(request);
  connection_->send(line);
}

void Watched::askAll(Clock::time_point now) {
  ask(Request::monitor, "monitor histograms", now);
  if (!details_) return;
  std::string const limit = " limit=" + std::to_string(eventsMax);
  if (nextEvent_ == 0) {
    ask(Request::newest, "history limit=1", now);
  } else {
    ask(Request::history, "history since=" + std::to_string(nextEvent_) + limit, now);
  }
  ask(Request::stalls, "stalls", now);
}

void Watched::handleAnswer(Request request, Answer const& answer) {
  switch (request) {
    case Request::monitor:
      if (answer.error) throw Failure(path_ + ": " + *answer.error);
      return handleMonitor(answer.text);
    case Request::clear:
      return noticeIs(answer.error ? "not cleared: " + *answer.error : "cleared");
    case Request::newest:
    case Request::history:
      eventsTrouble_ = printable(answer.error.value_or(""));
      if (answer.error) return;
      return request == Request::newest ? handleNewest(answer.text) : handleHistory(answer.text);
    case Request::stalls:
      stallsTrouble_ = printable(answer.error.value_or(""));
      if (!answer.error) handleStalls(answer.text);
  }
}

void Watched::handleMonitor(std::string const& text) {
  Figures figures = parseMonitor(text);
  std::string const time = " at " + timeOfDay(figures.head.timeUnixSeconds);
  auto const how = window_ ? continuity(figures, *window_) : Continuity::cleared;
  if (window_ && how == Continuity::restarted) {
    noticeIs("the daemon has restarted, seen" + time);
    load_.clear();
    history_.clear();
    stalls_.clear();
    nextEvent_ = 0;
  } else if (window_ && how == Continuity::cleared) {
    noticeIs("its figures have been cleared, seen" + time);
  } else if (!trouble_.empty() && window_) {
    noticeIs("it answers again, since" + time.substr(3));
  }
  trouble_.clear();
  latest_ = how == Continuity::same ? difference(figures, *window_) : figures;
  window_ = std::move(figures);
  ++answers_;
  load_.push_back(latest_->perSecond(latest_->loop.runningSeconds));
  if (load_.size() > loadsMax) load_.erase(load_.begin());
}

void Watched::handleNewest(std::string const& text) {
  std::uint64_t const recorded = readHistory(text).recorded;
  nextEvent_ = recorded > eventsMax ? recorded - eventsMax + 1 : 1;
}

void Watched::handleHistory(std::string const& text) {
  HistoryDocument const document = readHistory(text);
  for (auto const& event : document.events) {
    auto const age =
        static_cast<double>(document.head.timeMonotonicNs) - static_cast<double>(event.timeNs);
    history_.push_back({document.head.timeUnixSeconds - age / 1e9, printable(event.type),
                        printable(event.subject)});
    if (history_.size() > eventsMax) history_.pop_front();
  }
  // A daemon that is fast records more than fits here: what matters is the latest.
  std::uint64_t const next = document.events.empty() ? nextEvent_ : document.next();
  nextEvent_ = document.recorded > next + eventsMax ? 0 : next;
}

void Watched::handleStalls(std::string const& text) {
  Json const document = readDocument(text, "stalls");
  stalls_.clear();
  for (auto const& json : arrayOf(document, "stalls")) {
    Stall stall;
    stall.group = printable(textOf(json, "group"));
    stall.name = printable(textOf(json, "name"));
    stall.place = printable(placeOf(arrayOf(json, "frames")));
    stall.count = numberOf(json, "count");
    stall.lastUnix = numberOf(json, "last_unix_s");
    stall.lastSeconds = numberOf(json, "last_s");
    stall.lastCpuSeconds = numberOf(json, "last_cpu_s");
    stall.longestSeconds = numberOf(json, "longest_s");
    stall.lasting = flagOf(json, "lasting");
    stalls_.push_back(std::move(stall));
    if (stalls_.size() == 100) return;
  }
}

void Watched::noticeIs(std::string text) {
  notice_ = printable(text);
}

}  // namespace Tool
