#pragma once

#include <cstdint>
#include <deque>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace Zel {

/// One item of the TRACE list: which levels of which facilities go on or off.
///
/// A plain value. The text form, which `operator<<` writes and `traceSettingsRead` reads, is
/// `[-]name[/levels]`: `*` in the name stands for any run of characters, levels are numbers,
/// ranges and `*` joined by `+` (`0-3+7`), no levels means all sixteen, and a leading `-`
/// switches off.
class TraceSetting {
 public:
  /// `levels` has bit `1 << n` for level `n`, and at least one bit.
  TraceSetting(std::string name, std::uint16_t levels, bool enabled);

  std::string const& name() const { return name_; }
  std::uint16_t levels() const { return levels_; }
  bool enabled() const { return enabled_; }

  bool matches(std::string_view facility) const;

  /// The mask of `facility` after this setting, given the one before it.
  std::uint16_t applied(std::string_view facility, std::uint16_t mask) const;

 private:
  std::string name_;
  std::uint16_t levels_;
  bool enabled_;
};

/// Writes what a person would type; all sixteen levels are left unsaid.
std::ostream& operator<<(std::ostream& stream, TraceSetting const& setting);

/// A list as read. `settings` keeps the order of the text, since later items win.
struct TraceSettings {
  struct BadItem {
    std::string text;  // without the blanks around it
    std::string reason;
  };
  std::deque<TraceSetting> settings;
  std::vector<BadItem> badItems;
};

/// Reads a comma-separated list. Blanks around an item, and after its dash, are passed over,
/// and so is an item of nothing but blanks; what cannot be read goes to `badItems`.
TraceSettings traceSettingsRead(std::string_view text);

}  // namespace Zel
