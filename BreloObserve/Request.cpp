#include "BreloObserve/internal/Request.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace BreloObserve::Impl {

namespace {

constexpr std::string_view blanks = " \t\r\v\f";

/// By kind.
constexpr std::array<std::string_view, Request::names.size()> usages{
    "hello",
    "monitor [top=N] [sort=COLUMN] [histograms] [group=NAME]",
    "history [since=N] [limit=N] [capacity=N]",
    "stalls",
    "exceptions [on] [off]",
    "pending",
    "trace [SETTINGS]",
    "clear",
    "report [text]",
    "framed",
};

bool isPrintable(char c) {
  return c >= ' ' && c <= '~';
}

/// For an error's text, whatever the client has sent.
std::string quoted(std::string_view text) {
  constexpr std::size_t shownMax = 60;
  std::string shown = "\"";
  for (char const c : text.substr(0, shownMax))
    shown += isPrintable(c) ? c : '?';
  return shown + (text.size() > shownMax ? "...\"" : "\"");
}

/// The next word without the blanks before it; empty at the end. One that has a quotation mark
/// behind its equals sign reaches to the next mark.
std::string_view takeWord(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
  std::size_t end = std::min(line.find_first_of(blanks), line.size());
  std::size_t const value = line.substr(0, end).find('=') + 1;  // 0 without one
  if (value > 0 && value < end && line[value] == '"') {
    end = std::min(line.find('"', value + 1), line.size() - 1) + 1;
  }
  std::string_view const word = line.substr(0, end);
  line.remove_prefix(end);
  return word;
}

Request::Kind kindOf(std::string_view name) {
  auto const* const at = std::find(Request::names.begin(), Request::names.end(), name);
  if (at != Request::names.end()) {
    return static_cast<Request::Kind>(at - Request::names.begin());
  }
  throw RequestError("there is no request " + quoted(name) + ", see \"hello\"");
}

}  // namespace

struct Request::Argument {
  explicit Argument(std::string_view word) : name(word.substr(0, word.find('='))) {
    if (name.size() < word.size()) value = word.substr(name.size() + 1);
    if (value && value->size() >= 2 && value->front() == '"' && value->back() == '"') {
      value = value->substr(1, value->size() - 2);
    }
  }

  // These return whether the value is of that form.

  bool number(std::uint64_t& into) const {
    if (!value) return false;
    auto const [end, error] = std::from_chars(value->begin(), value->end(), into);
    return error == std::errc() && end == value->end();
  }
  bool string(std::string& into) const {
    if (!value || value->empty() || value->front() == '"') return false;
    into = *value;
    return true;
  }
  bool word() const { return !value; }

  std::string_view name;
  std::optional<std::string_view> value;
};

/// False if it is none of this request's.
bool Request::take(Argument const& argument) {
  std::string_view const name = argument.name;
  switch (kind) {
    case Kind::monitor:
      if (name == "top") return argument.number(top);
      if (name == "sort") return argument.string(sort);
      if (name == "group") return argument.string(group);
      if (name != "histograms") return false;
      histograms = true;
      return argument.word();
    case Kind::history:
      if (name == "since") return argument.number(since);
      if (name == "limit") return argument.number(limit);
      return name == "capacity" && argument.number(capacity);
    case Kind::exceptions:
      recording = name == "on";
      return argument.word() && (name == "on" || name == "off");
    case Kind::report:
      text = true;
      return argument.word() && name == "text";
    default:
      return false;
  }
}

Request Request::read(std::string_view line) {
  Request request;
  request.kind = kindOf(takeWord(line));
  std::string_view const usage = usages[static_cast<std::size_t>(request.kind)];
  if (request.kind == Kind::trace) {
    request.settings = trimmed(line);
    if (std::all_of(request.settings.begin(), request.settings.end(), isPrintable)) return request;
    throw RequestError("there are strange characters in " + quoted(request.settings));
  }
  for (auto word = takeWord(line); !word.empty(); word = takeWord(line)) {
    if (request.take(Argument(word))) continue;
    throw RequestError(quoted(word) + " has no meaning in \"" + std::string(usage) + "\"");
  }
  return request;
}

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  return text.substr(0, text.find_last_not_of(blanks) + 1);
}

}  // namespace BreloObserve::Impl
