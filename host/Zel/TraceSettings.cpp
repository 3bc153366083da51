#include "Zel/TraceSettings.h"

#include <charconv>
#include <ostream>
#include <utility>

namespace Zel {

namespace {

constexpr std::uint16_t allLevels = 0xffff;
constexpr unsigned levelCount = 16;
constexpr char const* blanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  std::size_t const first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// Takes the text before the first separator off the front, and the separator with it.
std::string_view takeUpTo(char separator, std::string_view& rest) {
  std::size_t const end = rest.find(separator);
  std::string_view const taken = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  return taken;
}

bool wildcardMatch(std::string_view pattern, std::string_view text) {
  std::size_t p = 0, t = 0;
  std::size_t star = std::string_view::npos, starText = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      starText = t;
    } else if (p < pattern.size() && pattern[p] == text[t]) {
      ++p;
      ++t;
    } else if (star != std::string_view::npos) {
      // Only the last star need give way: the earlier ones have found their shortest match.
      p = star + 1;
      t = ++starText;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

/// The readers of levels and items return the reason of a failure, null after a success.
char const* readLevel(std::string_view text, unsigned& level) {
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), level);
  if (error == std::errc::invalid_argument || end != text.data() + text.size()) {
    return "a level is not a number";
  }
  if (error != std::errc() || level >= levelCount) return "a level is above 15";
  return nullptr;
}

char const* readLevels(std::string_view text, std::uint16_t& levels) {
  levels = 0;
  // A separator at the end leaves an empty part behind it, which is as bad as any other.
  for (bool more = true; more;) {
    more = text.find('+') != std::string_view::npos;
    std::string_view part = takeUpTo('+', text);
    if (part == "*") {
      levels = allLevels;
      continue;
    }
    bool const isRange = part.find('-') != std::string_view::npos;
    unsigned first = 0;
    if (char const* reason = readLevel(takeUpTo('-', part), first)) return reason;
    unsigned last = first;
    if (isRange) {
      if (char const* reason = readLevel(part, last)) return reason;
    }
    if (last < first) return "a range of levels runs backwards";
    levels = static_cast<std::uint16_t>(levels | ((2u << last) - (1u << first)));
  }
  return nullptr;
}

char const* readItem(std::string_view item, std::deque<TraceSetting>& settings) {
  bool const enabled = item.front() != '-';
  if (!enabled) item = trimmed(item.substr(1));
  std::size_t const slash = item.rfind('/');
  std::string_view const name = item.substr(0, slash);
  if (name.empty()) return "the name is missing";
  std::uint16_t levels = allLevels;
  if (slash != std::string_view::npos) {
    if (char const* reason = readLevels(item.substr(slash + 1), levels)) return reason;
  }
  settings.emplace_back(std::string(name), levels, enabled);
  return nullptr;
}

}  // namespace

TraceSetting::TraceSetting(std::string name, std::uint16_t levels, bool enabled)
    : name_(std::move(name)), levels_(levels), enabled_(enabled) {}

bool TraceSetting::matches(std::string_view facility) const {
  return wildcardMatch(name_, facility);
}

std::uint16_t TraceSetting::applied(std::string_view facility, std::uint16_t mask) const {
  if (!matches(facility)) return mask;
  return static_cast<std::uint16_t>(enabled_ ? mask | levels_ : mask & ~levels_);
}

std::ostream& operator<<(std::ostream& stream, TraceSetting const& setting) {
  std::string text = setting.enabled() ? "" : "-";
  text += setting.name();
  if (setting.levels() == allLevels) {
    // A slash or a blank at its end would not be read as part of the name.
    bool const bare = text.find('/') == std::string::npos && trimmed(text).size() == text.size();
    return stream << text << (bare ? "" : "/*");
  }
  auto const isOn = [&](unsigned level) { return (setting.levels() >> level & 1) != 0; };
  char separator = '/';
  for (unsigned first = 0; first < levelCount; ++first) {
    if (!isOn(first)) continue;
    unsigned last = first;
    while (isOn(last + 1))
      ++last;
    text += separator + std::to_string(first);
    if (last > first) text += '-' + std::to_string(last);
    separator = '+';
    first = last;
  }
  return stream << text;
}

TraceSettings traceSettingsRead(std::string_view text) {
  TraceSettings result;
  while (!text.empty()) {
    std::string_view const item = trimmed(takeUpTo(',', text));
    if (item.empty()) continue;
    if (char const* reason = readItem(item, result.settings)) {
      result.badItems.push_back({std::string(item), reason});
    }
  }
  return result;
}

}  // namespace Zel
