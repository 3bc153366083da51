#include "BreloObserve/internal/Document.h"

#include <unistd.h>

#include <chrono>
#include <cmath>

#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/Time.h"

namespace BreloObserve::Impl {

namespace {

// Numbers with which a reader tells a process from the one before it.
double const loadedAt = Brelo::time();

/// The length of the UTF-8 sequence at the beginning of `text`, or 0 if it is none.
std::size_t sequenceLength(std::string_view text) {
  auto const byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned const first = byte(0);
  if (first < 0x80) return 1;
  std::size_t const length = first < 0xC2   ? 0
                             : first < 0xE0 ? 2
                             : first < 0xF0 ? 3
                             : first < 0xF5 ? 4
                                            : 0;
  if (length == 0 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  // Longer than needed, a surrogate, or beyond the last code point.
  unsigned const second = byte(1);
  if ((first == 0xE0 && second < 0xA0) || (first == 0xED && second >= 0xA0) ||
      (first == 0xF0 && second < 0x90) || (first == 0xF4 && second >= 0x90)) {
    return 0;
  }
  return length;
}

std::string asUtf8(std::string_view text) {
  std::string valid;
  while (!text.empty()) {
    std::size_t const length = sequenceLength(text);
    if (length == 0) {
      valid += "\xEF\xBF\xBD";
      text.remove_prefix(1);
    } else {
      valid += text.substr(0, length);
      text.remove_prefix(length);
    }
  }
  return valid;
}

bool isAscii(std::string_view text) {
  for (char const c : text) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

rapidjson::SizeType sizeOf(std::string_view text) {
  return static_cast<rapidjson::SizeType>(text.size());
}

}  // namespace

Document::Document(std::string_view kind, int version, Brelo::TaskSchedulerRoot const& root) {
  writer_.StartObject();
  member("document", kind);
  member("version", std::int64_t{version});
  key("process");
  writer_.StartObject();
  member("name", root.schedulerName());
  member("pid", std::int64_t{::getpid()});
  member("started_unix_s", loadedAt);
  member("library", BRELO_VERSION);
  writer_.EndObject();
  member("time_unix_s", Brelo::time());
  member("time_monotonic_ns",
         std::int64_t{std::chrono::steady_clock::now().time_since_epoch().count()});
}

void Document::key(std::string_view name) {
  writer_.Key(name.data(), sizeOf(name));
}

void Document::string(std::string_view text) {
  if (isAscii(text)) {
    writer_.String(text.data(), sizeOf(text));
  } else {
    std::string const valid = asUtf8(text);
    writer_.String(valid.data(), sizeOf(valid));
  }
}

void Document::member(std::string_view name, std::string_view text) {
  key(name);
  string(text);
}

void Document::member(std::string_view name, double number) {
  key(name);
  if (std::isfinite(number)) {
    writer_.Double(number);
  } else {
    writer_.Null();
  }
}

void Document::member(std::string_view name, std::uint64_t number) {
  key(name);
  writer_.Uint64(number);
}

void Document::member(std::string_view name, std::int64_t number) {
  key(name);
  writer_.Int64(number);
}

void Document::member(std::string_view name, bool value) {
  key(name);
  writer_.Bool(value);
}

void Document::memberNull(std::string_view name) {
  key(name);
  writer_.Null();
}

void Document::newLine() {
  buffer_.Put('\n');
}

std::string Document::finish() {
  writer_.EndObject();
  newLine();
  return {buffer_.GetString(), buffer_.GetSize()};
}

}  // namespace BreloObserve::Impl
