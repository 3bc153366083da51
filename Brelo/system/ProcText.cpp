#include "Brelo/system/ProcText.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <istream>

namespace Brelo::Impl {

std::optional<std::string> titleOf(std::istream& status) {
  static constexpr char label[] = "Name:";
  static constexpr char white[] = " \t\n";
  for (std::string line; std::getline(status, line);) {
    auto const found = line.find(label);
    if (found == std::string::npos) continue;
    line = line.substr(line.find_first_not_of(white, found + std::strlen(label)));
    line.erase(line.find_last_not_of(white) + 1);
    return line;
  }
  return std::nullopt;
}

std::string fieldsBehindCommand(std::string const& stat) {
  auto const parenthesis = stat.rfind(')');
  if (parenthesis == std::string::npos || stat.size() <= parenthesis + 2) return {};
  return stat.substr(parenthesis + 2);
}

std::vector<std::string> splitAtBlanks(std::string text) {
  std::vector<std::string> tokens;
  char* rest = nullptr;
  for (char* token = strtok_r(text.data(), " ", &rest); token != nullptr;
       token = strtok_r(nullptr, " ", &rest)) {
    tokens.emplace_back(token);
  }
  return tokens;
}

std::string inodeField(std::string const& line) {
  auto const end = line.rfind(' ');
  if (end == std::string::npos || end == 0) return {};
  auto const before = line.rfind(' ', end - 1);
  auto const begin = before == std::string::npos ? 0 : before + 1;
  return line.substr(begin, end - begin);
}

std::uint32_t toU32(std::string const& text) {
  std::uint32_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, 10);
  return number;
}

bool mayHoldLock(std::string const& locks, std::string const& pid) {
  return locks.find(pid) != std::string::npos;
}

bool listsLock(std::string const& fdinfo) {
  return fdinfo.find("OFDLCK") != std::string::npos || fdinfo.find("POSIX") != std::string::npos;
}

std::string commandLine(std::string cmdline) {
  std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
  return cmdline;
}

}  // namespace Brelo::Impl
