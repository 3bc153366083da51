#include "top/Line.h"

#include <langinfo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "Text.h"

namespace Tool {

namespace {

[[gnu::format(printf, 1, 2)]] std::string formatted(char const* format, ...) {
  std::array<char, 64> text{};
  std::va_list values;
  va_start(values, format);
  std::vsnprintf(text.data(), text.size(), format, values);
  va_end(values);
  return text.data();
}

/// Three significant digits, or as many as stand before the point.
std::string digits(double value, char const* unit) {
  int decimals = value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
  return formatted("%.*f%s", decimals, value, unit);
}

constexpr double longest = 86400 * 99999.0;  // seconds, about 270 years

}  // namespace

std::size_t Line::width() const {
  std::size_t sum = 0;
  for (auto const& piece : pieces)
    sum += columnsOf(piece.text);
  return sum;
}

std::string fitted(std::string_view text, std::size_t columns) {
  std::string result = cutTo(text, columns);
  return result.append(columns - std::min(columns, columnsOf(result)), ' ');
}

std::string fittedRight(std::string_view text, std::size_t columns) {
  std::string result = cutTo(text, columns);
  return result.insert(0, columns - std::min(columns, columnsOf(result)), ' ');
}

bool localeIsUtf8() {
  return std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0;
}

std::string inLocale(std::string_view text) {
  std::string result;
  bool const utf8 = localeIsUtf8();
  for (char byte : text) {
    bool const continues = (byte & 0xC0) == 0x80;
    if (utf8 || (byte & 0x80) == 0) {
      result += byte;
    } else if (!continues) {
      result += '?';
    }
  }
  return result;
}

std::string plainText(Line const& line) {
  std::string result;
  for (auto const& piece : line.pieces)
    result += inLocale(piece.text);
  result.erase(result.find_last_not_of(' ') + 1);
  return result;
}

std::string shortLength(double nanoseconds) {
  if (nanoseconds < 999.5) return formatted("%.0fns", nanoseconds);
  if (nanoseconds < 999.5e3) return digits(nanoseconds / 1e3, "us");
  if (nanoseconds < 999.5e6) return digits(nanoseconds / 1e6, "ms");
  double const seconds = nanoseconds / 1e9;
  if (seconds < 999.5) return digits(seconds, "s");
  if (seconds < 99.5 * 60) return formatted("%.0fmin", seconds / 60);
  if (seconds < 999.5 * 3600) return digits(seconds / 3600, "h");
  return seconds < longest ? digits(seconds / 86400, "d") : "ages";
}

std::string shortCount(double count) {
  if (count < 9999.5 && count == std::floor(count)) return formatted("%.0f", count);
  if (count < 999.5) return digits(count, "");
  for (char const* unit : {"k", "M", "G", "T", "P", "E"}) {
    count /= 1e3;
    if (count < 999.5) return digits(count, unit);
  }
  return ">999E";
}

std::string shortPercent(double ratio) {
  double const percent = ratio * 100;
  if (percent > 9999) return ">9999";
  return formatted("%.*f", percent < 99.95 ? 1 : 0, percent);
}

std::string uptimeText(double seconds) {
  if (!(seconds >= 0 && seconds < longest)) return "?";
  auto const whole = static_cast<long>(seconds);
  std::string const days = whole >= 86400 ? formatted("%ldd ", whole / 86400) : "";
  return days + formatted("%02ld:%02ld:%02ld", whole / 3600 % 24, whole / 60 % 60, whole % 60);
}

std::string timeOfDay(double unixSeconds) {
  if (!(unixSeconds >= 0 && unixSeconds < 1e11)) return "?";
  auto const whole = static_cast<std::time_t>(unixSeconds);
  std::tm local{};
  ::localtime_r(&whole, &local);
  return formatted("%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
}

std::string sparkline(std::vector<double> const& ratios, std::size_t columns) {
  static constexpr std::array<char const*, 8> blocks{"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  static constexpr std::array<char const*, 8> ascii{"_", ".", "-", ":", "=", "+", "*", "#"};
  auto const& steps = localeIsUtf8() ? blocks : ascii;
  std::string result;
  for (auto i = ratios.size() - std::min(columns, ratios.size()); i < ratios.size(); ++i) {
    auto const step = static_cast<std::size_t>(std::clamp(ratios[i], 0.0, 1.0) * 8);
    result += steps[std::min<std::size_t>(step, 7)];
  }
  return result;
}

}  // namespace Tool
