#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Tool {

/// The text in one line that a terminal shows as it is: control characters, and bytes that are no
/// UTF-8, become a question mark. Daemons name their tasks as they like.
std::string printable(std::string_view text);
/// How many columns of a terminal a printable text takes.
std::size_t columnsOf(std::string_view text);
/// At most so many columns of it; what has been cut is shown by a "~" at the end.
std::string cutTo(std::string_view text, std::size_t columns);

/// "0", "12.3 us", "1.20 s": a length for people.
std::string lengthText(double seconds);
/// "950", "12.3k", "4.56M": a count or a rate for people.
std::string countText(double count);
/// "12.3 %" of a ratio.
std::string percentText(double ratio);

/// Lines of cells, printed so that the columns align: texts at the left, figures at the right.
class Table {
 public:
  enum class Align { left, right };
  struct Column {
    std::string title;
    Align align = Align::right;
  };
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  /// A cell for each column; they are made printable.
  void line(std::vector<std::string> cells);
  /// The titles, if any column has one, and the lines; no blanks at their ends.
  std::string text() const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> lines_;
};

}  // namespace Tool
