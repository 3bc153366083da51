#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Tool {

enum class Style { plain, bold, dim, good, warning, alarm, reverse, alarmReverse };

/// A line of a view: pieces of printable text in UTF-8, each of one style.
struct Line {
  struct Piece {
    std::string text;
    Style style;
  };
  std::vector<Piece> pieces;

  Line() = default;
  explicit Line(std::string text, Style style = Style::plain) { add(std::move(text), style); }
  Line& add(std::string text, Style style = Style::plain) {
    pieces.push_back({std::move(text), style});
    return *this;
  }
  std::size_t width() const;  ///< in columns of a terminal
};

/// The text in so many columns, cut or filled up with blanks.
std::string fitted(std::string_view text, std::size_t columns);
std::string fittedRight(std::string_view text, std::size_t columns);

/// Whether the locale has more than ASCII.
bool localeIsUtf8();
/// Printable text as the locale can show it.
std::string inLocale(std::string_view text);
/// The line for output without styles: no blanks at its end.
std::string plainText(Line const& line);

/// Figures in at most six columns.
/// @{
std::string shortLength(double nanoseconds);  ///< "1.23ms"
std::string shortCount(double count);         ///< "12.3k"
std::string shortPercent(double ratio);       ///< "12.3", of 0.123
/// @}
/// "2d 03:04:05", for lengths that people compare with clocks.
std::string uptimeText(double seconds);
/// The local time of day, "13:14:15".
std::string timeOfDay(double unixSeconds);

/// The latest of these ratios from 0 to 1, one to a column, in block characters where the locale
/// has them.
std::string sparkline(std::vector<double> const& ratios, std::size_t columns);

}  // namespace Tool
