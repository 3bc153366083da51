#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <optional>
#include <string_view>

namespace Cached {

/// Takes the next word off the front; an empty one at the end.
inline std::string_view takeWord(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  std::string_view const word = line.substr(0, line.find(' '));
  line.remove_prefix(word.size());
  return word;
}

/// The number that all of the text is, if it is one.
template <class Number>
std::optional<Number> numberIn(std::string_view text) {
  Number number;
  auto const [end, error] = std::from_chars(text.begin(), text.end(), number);
  if (error != std::errc() || end != text.end()) return std::nullopt;
  return number;
}

/// The words of a line, and one too many at most; a last "noreply" is none of them.
struct CommandLine {
  explicit CommandLine(std::string_view line) {
    while (count < words.size() && !(words[count] = takeWord(line)).empty())
      ++count;
    quiet = count > 1 && words[count - 1] == "noreply";
    if (quiet) --count;
  }

  bool is(std::string_view command, std::size_t size) const {
    return words[0] == command && count == size;
  }

  std::array<std::string_view, 8> words;
  std::size_t count = 0;
  bool quiet;
};

}  // namespace Cached
