#include "BreloObserve/internal/Answers.h"

#include <algorithm>
#include <boost/circular_buffer.hpp>
#include <chrono>
#include <sstream>
#include <utility>

#include "Brelo/Backtrace.h"
#include "Brelo/Debug.h"
#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloObserve/Monitor.h"
#include "BreloObserve/StallDetector.h"
#include "BreloObserve/internal/Document.h"

namespace BreloObserve::Impl {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

namespace {

constexpr std::uint64_t eventsMax = 10'000;     // in a document: a few milliseconds
constexpr std::size_t traceSettingsMax = 4000;  // bytes, since the list only grows

/// Each line of the text as an element of an array.
void writeLines(Document& document, std::string_view key, std::string_view text) {
  document.key(key);
  document.writer().StartArray();
  while (!text.empty()) {
    std::size_t const end = std::min(text.find('\n'), text.size());
    document.string(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  document.writer().EndArray();
}

/// How many items there are, blank ones left out.
std::ptrdiff_t itemCount(std::string_view list) {
  std::ptrdiff_t count = 0;
  while (!list.empty()) {
    std::size_t const end = std::min(list.find(','), list.size());
    if (!trimmed(list.substr(0, end)).empty()) ++count;
    list.remove_prefix(std::min(end + 1, list.size()));
  }
  return count;
}

}  // namespace

Answers::Answers(std::shared_ptr<Brelo::TaskSchedulerRoot> root, Monitor const* monitor,
                 StallDetector const* stallDetector, bool traceChanges)
    : root_(std::move(root)),
      monitor_(monitor),
      stallDetector_(stallDetector),
      traceChanges_(traceChanges) {}

std::string Answers::document(Request const& request) const {
  using Kind = Request::Kind;
  switch (request.kind) {
    case Kind::monitor:
      return monitor(request);
    case Kind::history:
      return history(request);
    case Kind::exceptions:
      return exceptions(request);
    case Kind::pending:
      return pending();
    case Kind::trace:
      return trace(request);
    case Kind::clear:
      return clear();
    case Kind::report:
      return reportAsText();
    case Kind::stalls:
      return stalls();
    default:
      return hello();
  }
}

std::string Answers::hello() const {
  Document document("hello", 1, *root_);
  document.key("requests");
  document.writer().StartArray();
  for (std::string_view const name : Request::names)
    document.string(name);
  document.writer().EndArray();
  document.member("tasks", root_->totalRegisteredTaskCount());
  document.member("monitor", monitor_ != nullptr);
  document.member("stalls", stallDetector_ != nullptr);
  document.member("history_capacity", std::uint64_t{root_->historyEntryCount()});
  return document.finish();
}

std::string Answers::monitor(Request const& request) const {
  if (monitor_ == nullptr) throw RequestError("this daemon has no monitor");
  MonitorRequest wanted;
  wanted.top = static_cast<std::size_t>(request.top);
  wanted.histograms = request.histograms;
  wanted.group = request.group;
  if (!request.sort.empty()) wanted.sort = request.sort;
  if (Monitor::isColumn(wanted.sort)) return monitor_->document(wanted);
  std::string text = "there is no such column to sort by, only";
  for (std::string_view const column : Monitor::columns())
    text.append(" ").append(column);
  throw RequestError(text);
}

std::string Answers::history(Request const& request) const {
  Brelo::TaskSchedulerHistory const& history = root_->history();
  auto const& ring = history.events();
  std::uint64_t const next = history.recorded() + 1;
  std::uint64_t const oldest = next - ring.size();
  std::uint64_t const asked = request.since == 0 ? oldest : std::min(request.since, next);
  std::uint64_t const first = std::max(asked, oldest);
  std::uint64_t const end = first + std::min({next - first, request.limit, eventsMax});

  Document document("history", 1, *root_);
  document.member("capacity", std::uint64_t{history.capacity()});
  document.member("recorded", history.recorded());
  document.member("first", first);
  document.member("lost", first - asked);
  document.key("events");
  Document::Writer& writer = document.writer();
  writer.StartArray();
  for (std::uint64_t number = first; number < end; ++number) {
    auto const& event = ring[next - 1 - number];
    writer.StartArray();
    writer.Int64(event.eventTime().time_since_epoch().count());
    document.string(event.eventTypeDisplay());
    document.string(event.eventId().string());
    writer.EndArray();
  }
  writer.EndArray();
  return document.finish();
}

std::string Answers::stalls() const {
  if (stallDetector_ == nullptr) throw RequestError("this daemon has no stall detector");
  return stallDetector_->document();
}

std::string Answers::exceptions(Request const& request) const {
  using Brelo::BacktraceTracker;
  if (request.recording) BacktraceTracker::enabledIs(*request.recording);
  Document document("exceptions", 1, *root_);
  document.member("enabled", BacktraceTracker::enabled());
  document.member("capacity", std::uint64_t{BacktraceTracker::capacity()});
  document.key("exceptions");
  document.writer().StartArray();
  // The newest first, while there is time: their symbols are looked up one by one.
  auto const end = steady_clock::now() + nanoseconds(root_->defaultTaskQuantum().count()) / 2;
  auto const tracked = BacktraceTracker::tracked();
  auto each = tracked.rbegin();
  for (; each != tracked.rend() && steady_clock::now() < end; ++each) {
    document.writer().StartObject();
    document.member("message", each->message());
    writeLines(document, "backtrace", each->backtrace().pretty());
    document.writer().EndObject();
  }
  document.writer().EndArray();
  document.member("left_out", static_cast<std::uint64_t>(tracked.rend() - each));
  return document.finish();
}

std::string Answers::pending() const {
  std::ostringstream text;
  Brelo::Platform::pendingRender(text);
  Document document("pending", 1, *root_);
  writeLines(document, "pending", text.str());
  return document.finish();
}

std::string Answers::trace(Request const& request) const {
  using Brelo::Platform::breloDebugSettings;
  std::string const& asked = request.settings;
  if (!asked.empty()) {
    std::string const before = breloDebugSettings();
    if (!traceChanges_) throw RequestError("the daemon does not let clients change its traces");
    if (before.size() + asked.size() > traceSettingsMax) {
      throw RequestError("too many trace settings have been added: only a restart makes room");
    }
    Brelo::Platform::setupBreloDebug(asked.c_str());
    if (itemCount(breloDebugSettings()) != itemCount(before) + itemCount(asked)) {
      throw RequestError("\"" + asked +
                         "\" has no effect, or not all of it: items are NAME or NAME/LEVELS, as "
                         "TaskScheduler/4+5-7");
    }
  }
  Document document("trace", 1, *root_);
  document.member("trace", breloDebugSettings());
  return document.finish();
}

std::string Answers::clear() const {
  root_->clearStats();
  return hello();
}

std::string Answers::reportAsText() const {
  return root_->statsRenderTextForDebugToString(true, true, true, true) + "\n";
}

}  // namespace BreloObserve::Impl
