#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace BreloObserve::Impl {

/// A request that cannot be met; the text says why, in one printable line.
struct RequestError : std::runtime_error {
  using runtime_error::runtime_error;
};

/// What a client of the statistics server asks for: a line of words, read.
struct Request {
  enum class Kind : std::uint8_t {
    hello,
    monitor,
    history,
    stalls,
    exceptions,
    pending,
    trace,
    clear,
    report,
    framed,
  };
  /// By kind.
  static constexpr std::array<std::string_view, 10> names{
      "hello",   "monitor", "history", "stalls", "exceptions",
      "pending", "trace",   "clear",   "report", "framed",
  };
  static constexpr std::size_t lineMax = 1000;  ///< bytes, without the line's end

  /// From a line without its end that is not blank. Throws RequestError.
  static Request read(std::string_view line);

  Kind kind = Kind::hello;
  std::uint64_t top = 0;          ///< monitor
  std::string sort;               ///< monitor; empty if not given
  std::string group;              ///< monitor; likewise
  bool histograms = false;        ///< monitor
  std::uint64_t since = 0;        ///< history
  std::uint64_t limit = 10'000;   ///< history
  std::uint64_t capacity = 0;     ///< history
  std::optional<bool> recording;  ///< exceptions
  std::string settings;           ///< trace
  bool text = false;              ///< report

 private:
  struct Argument;

  bool take(Argument const& argument);
};

/// Without the blanks around it.
std::string_view trimmed(std::string_view text);

}  // namespace BreloObserve::Impl
