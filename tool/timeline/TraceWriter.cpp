#include "timeline/TraceWriter.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>

#include "Documents.h"

namespace Tool {

namespace {

constexpr std::size_t bufferMax = std::size_t{1} << 16;

/// With what is no UTF-8 replaced.
void appendQuoted(std::string& to, std::string_view text) {
  to += Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// Viewers leave out what has no name.
std::string_view named(std::string_view name) {
  return name.empty() ? "(no name)" : name;
}

/// The file counts in microseconds; to the nanosecond, and without a detour over floating point.
void appendTime(std::string& to, std::int64_t ns) {
  char text[32];
  std::snprintf(text, sizeof text, "%" PRId64 ".%03d", ns / 1000, static_cast<int>(ns % 1000));
  to += text;
}

}  // namespace

TraceWriter::Arguments& TraceWriter::Arguments::text(std::string_view name,
                                                     std::string_view value) {
  key(name);
  appendQuoted(members_, value);
  return *this;
}

TraceWriter::Arguments& TraceWriter::Arguments::number(std::string_view name, double value) {
  key(name);
  members_ += Json(value).dump();
  return *this;
}

TraceWriter::Arguments& TraceWriter::Arguments::count(std::string_view name, std::uint64_t value) {
  key(name);
  members_ += std::to_string(value);
  return *this;
}

void TraceWriter::Arguments::key(std::string_view name) {
  if (!members_.empty()) members_ += ',';
  appendQuoted(members_, name);
  members_ += ':';
}

TraceWriter::TraceWriter(Sink sink) : sink_(std::move(sink)) {
  buffer_ = R"({"displayTimeUnit":"ns","traceEvents":[)";
}

void TraceWriter::begin(Track track, std::int64_t timeNs, std::string_view name) {
  open("B", track, timeNs);
  nameAndCategory(name, "run");
  close();
}

void TraceWriter::end(Track track, std::int64_t timeNs) {
  open("E", track, timeNs);
  close();
}

void TraceWriter::slice(Track track, std::int64_t startNs, std::int64_t endNs,
                        std::string_view name, char const* category, Arguments const& arguments) {
  open("X", track, startNs);
  buffer_ += R"(,"dur":)";
  appendTime(buffer_, endNs - startNs);
  nameAndCategory(name, category);
  close(arguments);
}

void TraceWriter::flow(Track from, std::int64_t fromNs, Track to, std::int64_t toNs) {
  std::string const id = R"(,"id":)" + std::to_string(++flows_);
  open("s", from, fromNs);
  buffer_ += id;
  nameAndCategory("request", "flow");
  close();
  open("f", to, toNs);
  buffer_ += id + R"(,"bp":"e")";
  nameAndCategory("request", "flow");
  close();
}

void TraceWriter::instant(Track track, std::int64_t timeNs, std::string_view name,
                          char const* category, Arguments const& arguments) {
  open("i", track, timeNs);
  buffer_ += R"(,"s":"t")";
  nameAndCategory(name, category);
  close(arguments);
}

void TraceWriter::counter(int process, std::int64_t timeNs, std::string_view name,
                          std::uint64_t value) {
  open("C", {process, 0}, timeNs);
  nameAndCategory(name, "counter");
  close(Arguments().count("tasks", value));
}

void TraceWriter::nameProcess(int process, std::string_view name) {
  open("M", {process, 0}, 0);
  nameAndCategory("process_name", "__metadata");
  close(Arguments().text("name", named(name)));
  open("M", {process, 0}, 0);
  nameAndCategory("process_sort_index", "__metadata");
  close(Arguments().count("sort_index", static_cast<std::uint64_t>(process)));
}

void TraceWriter::nameTrack(Track track, std::string_view name, int position) {
  open("M", track, 0);
  nameAndCategory("thread_name", "__metadata");
  close(Arguments().text("name", named(name)));
  open("M", track, 0);
  nameAndCategory("thread_sort_index", "__metadata");
  close(Arguments().count("sort_index", static_cast<std::uint64_t>(position)));
}

void TraceWriter::flush() {
  std::string const text = std::exchange(buffer_, {});
  if (!text.empty()) sink_(text);
}

void TraceWriter::finish() {
  buffer_ += "\n]}\n";
  flush();
}

void TraceWriter::open(char const* phase, Track track, std::int64_t timeNs) {
  buffer_ += empty_ ? "\n" : ",\n";
  empty_ = false;
  buffer_ += R"({"ph":")";
  buffer_ += phase;
  buffer_ += R"(","pid":)" + std::to_string(track.process);
  buffer_ += R"(,"tid":)" + std::to_string(track.thread);
  buffer_ += R"(,"ts":)";
  appendTime(buffer_, timeNs);
}

void TraceWriter::nameAndCategory(std::string_view name, char const* category) {
  buffer_ += R"(,"name":)";
  appendQuoted(buffer_, named(name));
  buffer_ += R"(,"cat":")";
  buffer_ += category;
  buffer_ += '"';
}

void TraceWriter::close(Arguments const& arguments) {
  if (!arguments.members().empty()) buffer_ += R"(,"args":{)" + arguments.members() + '}';
  close();
}

void TraceWriter::close() {
  buffer_ += '}';
  if (buffer_.size() >= bufferMax) flush();
}

}  // namespace Tool
