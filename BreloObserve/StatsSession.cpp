#include "BreloObserve/internal/StatsSession.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

#include "Brelo/TaskScheduler.h"
#include "Brelo/Time.h"

namespace BreloObserve::Impl {

using BreloDaemon::Descriptor;
using BreloDaemon::Stream;
using BreloDaemon::StreamEnd;

namespace {

constexpr unsigned historyMax = 1'000'000;  // events: some 30 MB

}  // namespace

StatsSession::StatsSession(Server& server, Stream& client)
    : server_(server), client_(client), answeredAt_(Brelo::time()) {
  line_.reserve(Request::lineMax);
  client_.waterMarksIs(unsentMax / 4, unsentMax);
  client_.halfOpenIs(true);
  client_.onReceiveEnd([this] { inputEnds(); });
  client_.onDrained([this] {
    if (report_ != nullptr) report_->readingPausedIs(false);
  });
  client_.receive([this](std::string_view bytes) { return received(bytes); });
  client_.onEnd([this](auto...) { server_.ended(*this); });  // at last: nothing throws after it
}

std::size_t StatsSession::received(std::string_view bytes) {
  std::string_view rest = bytes;
  while (mayTakeLine() && !rest.empty()) {
    std::size_t end = rest.find('\n');
    if (std::min(end, rest.size()) > Request::lineMax) {
      dismiss("the line is too long");
      return bytes.size();
    }
    if (end == rest.npos) {
      if (!inputEnded_) break;
      end = rest.size();
    }
    line_ = trimmed(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line_.empty()) continue;
    asked_ = true;
    client_.readingPausedIs(true);
    server_.requestWaits();
  }
  leftover_ = rest.size();
  if (inputEnded_ && !asked_ && leftover_ == 0) client_.close();
  return bytes.size() - rest.size();
}

/// What is left is a last line without an end.
void StatsSession::inputEnds() {
  inputEnded_ = true;
  if (!asked_) answered();
}

void StatsSession::answer() {
  try {
    serve(Request::read(line_));
  } catch (std::bad_alloc const&) {
    sendError("out of memory");
  } catch (std::exception const& error) {
    sendError(error.what());
  }
  if (report_ == nullptr) answered();
}

void StatsSession::serve(Request const& request) {
  if (request.kind == Request::Kind::report && !request.text) return beginReport();
  if (request.kind == Request::Kind::framed) {
    sendDocument("framed 1\n");
    framed_ = true;
    return;
  }
  if (request.capacity > historyMax) throw RequestError("the capacity is 1000000 at most");
  if (request.capacity > 0) {
    historyWishIs(static_cast<unsigned>(request.capacity));
    server_.followHistoryWishes();
  }
  sendDocument(server_.answers().document(request));
}

/// Goes on with the next line.
void StatsSession::answered() {
  asked_ = false;
  answeredAt_ = Brelo::time();
  if (inputEnded_ && leftover_ == 0) return client_.close();
  client_.readingPausedIs(true);
  client_.readingPausedIs(false);  // what is left is offered again
}

/// The export writes into one end of a pair, at the pace at which the client empties the other.
void StatsSession::beginReport() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "no socket for the report");
  }
  Descriptor ours(ends[0]);
  Descriptor exports(ends[1]);
  auto const root = server_.root().shared_from_this();
  auto const snapshot =
      root->snapshot("", true, true, true, Brelo::TaskSchedulerSnapshot::displayOrderUnset);
  auto const report =
      std::make_shared<Stream>(root, server_.priority(), "stats:report", std::move(ours));
  report->receive([this](std::string_view bytes) { return relay(bytes); });
  report->onEnd([this](StreamEnd reason, std::error_code) { reportEnds(reason); });
  auto const failed = std::make_shared<bool>(false);
  root->snapshotRenderJsonAsync(exports.get(), {snapshot}, [failed] {
    *failed = std::current_exception() != nullptr;  // where one ends the export
  });
  exports.release();
  reportFailed_ = failed;
  reportBegun_ = false;
  report_ = report;
}

std::size_t StatsSession::relay(std::string_view bytes) {
  reportBegun_ = true;
  sendPiece(bytes);
  if (client_.unsent() >= unsentMax) report_->readingPausedIs(true);
  return bytes.size();
}

void StatsSession::reportEnds(StreamEnd reason) {
  report_.reset();
  if (reason != StreamEnd::peerClosed || *reportFailed_) {
    if (reportBegun_ && !framed_) client_.send("\n");
    sendError("out of memory");
  } else if (framed_) {
    client_.send(".\n");
  }
  answered();
}

void StatsSession::sendDocument(std::string_view text) {
  sendPiece(text);
  if (framed_) client_.send(".\n");
}

void StatsSession::sendPiece(std::string_view bytes) {
  if (framed_) {
    std::array<char, 24> size;
    auto const [end, error] = std::to_chars(size.begin(), size.end(), bytes.size());
    std::string_view const digits(size.data(), static_cast<std::size_t>(end - size.data()));
    client_.send({"+", digits, "\n", bytes});
  } else {
    client_.send(bytes);
  }
  noteSending();
}

void StatsSession::sendError(std::string_view why) {
  client_.send({framed_ ? "!" : "error: ", why, "\n"});
  noteSending();
}

void StatsSession::noteSending() {
  if (watched_ || client_.unsent() == 0) return;
  watched_ = true;
  movedAt_ = Brelo::time();
  server_.watchSending();
}

bool StatsSession::stillSends(double now, double limit) {
  bool const sends = client_.unsent() > 0;
  int queued = 0;  // in the kernel, which has room for us only when much of it has been taken
  ::ioctl(client_.descriptor(), SIOCOUTQ, &queued);
  std::uint64_t const taken = client_.bytesSent() - static_cast<unsigned>(queued);
  if (!dismissed_ && (!sends || std::exchange(takenBefore_, taken) != taken)) movedAt_ = now;
  watched_ = sends || dismissed_;
  if (watched_ && now - movedAt_ >= limit) client_.abort();
  return watched_;
}

void StatsSession::dismiss(std::string_view why) {
  sendError(why);
  dismissed_ = watched_ = true;
  movedAt_ = Brelo::time();
  server_.watchSending();
  client_.halfOpenIs(false);
  // A socket that is closed with something unread would take the error back.
  client_.receive([](std::string_view bytes) { return bytes.size(); });
  client_.shutdownSend();
}

void StatsSession::stop(std::chrono::nanoseconds limit) {
  if (asked_) {
    report_.reset();
    asked_ = false;
    sendError("the daemon is ending");
  }
  client_.idleLimitIs(limit);
  client_.close();
}

}  // namespace BreloObserve::Impl
