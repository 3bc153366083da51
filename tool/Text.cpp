#include "Text.h"

#include <wchar.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace Tool {

namespace {

struct Character {
  std::size_t bytes;
  std::uint32_t code;
};

/// The character at the beginning of a text that is not empty; of no bytes if that is no UTF-8.
Character firstOf(std::string_view text) {
  auto const byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  std::uint32_t const first = byte(0);
  if (first < 0x80) return {1, first};
  std::size_t const bytes = first < 0xC2   ? 0
                            : first < 0xE0 ? 2
                            : first < 0xF0 ? 3
                            : first < 0xF5 ? 4
                                           : 0;
  if (bytes == 0 || text.size() < bytes) return {0, 0};
  std::uint32_t code = first & (0x7FU >> bytes);
  for (std::size_t i = 1; i < bytes; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return {0, 0};
    code = code << 6 | (byte(i) & 0x3FU);
  }
  constexpr std::uint32_t leastOfLength[] = {0, 0, 0x80, 0x800, 0x10000};
  bool const surrogate = code >= 0xD800 && code < 0xE000;
  if (code < leastOfLength[bytes] || surrogate || code > 0x10FFFF) return {0, 0};
  return {bytes, code};
}

bool isControl(std::uint32_t code) {
  bool const turnsWriting =
      (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
  return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x2028 || code == 0x2029 ||
         turnsWriting;
}

std::size_t columnsOf(std::uint32_t code) {
  int const width = ::wcwidth(static_cast<wchar_t>(code));
  return width < 0 ? 1 : static_cast<std::size_t>(width);
}

std::string fixed(double value, int decimals, char const* unit = "") {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f%s", decimals, value, unit);
  return text;
}

/// Three digits, and the unit.
std::string withUnit(double value, char const* unit) {
  return fixed(value, value < 9.995 ? 2 : value < 99.95 ? 1 : 0, unit);
}

}  // namespace

std::string printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    Character const character = firstOf(text);
    std::size_t const bytes = std::max<std::size_t>(character.bytes, 1);
    if (character.bytes == 0 || isControl(character.code)) {
      shown += '?';
    } else {
      shown += text.substr(0, bytes);
    }
    text.remove_prefix(bytes);
  }
  return shown;
}

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) {
    Character const character = firstOf(text);
    columns += columnsOf(character.code);
    text.remove_prefix(std::max<std::size_t>(character.bytes, 1));
  }
  return columns;
}

std::string cutTo(std::string_view text, std::size_t columns) {
  if (columnsOf(text) <= columns) return std::string(text);
  if (columns == 0) return "";
  std::string cut;
  std::size_t left = columns - 1;
  while (!text.empty()) {
    Character const character = firstOf(text);
    std::size_t const width = columnsOf(character.code);
    if (width > left) break;
    left -= width;
    std::size_t const bytes = std::max<std::size_t>(character.bytes, 1);
    cut += text.substr(0, bytes);
    text.remove_prefix(bytes);
  }
  return cut + "~";
}

std::string lengthText(double seconds) {
  if (!std::isfinite(seconds)) return "-";
  if (seconds < 0) return "-" + lengthText(-seconds);
  if (seconds == 0) return "0";
  if (seconds < 999.5e-9) return fixed(seconds * 1e9, 0, " ns");
  if (seconds < 999.5e-6) return withUnit(seconds * 1e6, " us");
  if (seconds < 999.5e-3) return withUnit(seconds * 1e3, " ms");
  if (seconds < 999.5) return withUnit(seconds, " s");
  if (seconds < 3600) return withUnit(seconds / 60, " min");
  if (seconds < 86'400) return withUnit(seconds / 3600, " h");
  return withUnit(seconds / 86'400, " d");
}

std::string countText(double count) {
  if (!std::isfinite(count)) return "-";
  if (count < 0) return "-" + countText(-count);
  if (count < 9.995 && count != std::floor(count)) return fixed(count, 2);
  if (count < 999.5) return fixed(count, 0);
  if (count < 999.5e3) return withUnit(count / 1e3, "k");
  if (count < 999.5e6) return withUnit(count / 1e6, "M");
  if (count < 999.5e9) return withUnit(count / 1e9, "G");
  return withUnit(count / 1e12, "T");
}

std::string percentText(double ratio) {
  return std::isfinite(ratio) ? fixed(ratio * 100, 1, " %") : "-";
}

void Table::line(std::vector<std::string> cells) {
  cells.resize(columns_.size());
  for (std::string& cell : cells) {
    cell = printable(cell);
  }
  lines_.push_back(std::move(cells));
}

std::string Table::text() const {
  std::vector<std::size_t> widths;
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    std::size_t width = columnsOf(columns_[i].title);
    for (auto const& cells : lines_) {
      width = std::max(width, columnsOf(cells[i]));
    }
    widths.push_back(width);
  }
  std::string text;
  auto const append = [&](std::size_t i, std::string const& cell) {
    std::string const blanks(widths[i] - columnsOf(cell), ' ');
    if (i > 0) text += "  ";
    text += columns_[i].align == Align::left ? cell + blanks : blanks + cell;
  };
  auto const endLine = [&] {
    text.erase(text.find_last_not_of(' ') + 1);
    text += '\n';
  };
  bool const titled = std::any_of(columns_.begin(), columns_.end(),
                                  [](Column const& column) { return !column.title.empty(); });
  for (std::size_t i = 0; titled && i < columns_.size(); ++i) {
    append(i, columns_[i].title);
  }
  if (titled) endLine();
  for (auto const& cells : lines_) {
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      append(i, cells[i]);
    }
    endLine();
  }
  return text;
}

}  // namespace Tool
