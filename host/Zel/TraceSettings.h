#pragma once

#include <cstdint>
#include <deque>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "Zel/Export.h"

namespace Zel {

/// One item of the TRACE list: which levels of which facilities go on or off.
///
/// A plain value. The text form, which `operator<<` writes and `traceSettingsRead` reads, is
/// `[-]name[/levels]`: `*` in the name stands for any run of characters, levels are numbers,
/// ranges and `*` joined by `+` (`0-3+7`), no levels means all sixteen, and a leading `-`
/// switches off.
class ZEL_EXPORT TraceSetting {
 public:
  /// `levels` has bit `1 << n` for level `n`, and at least one bit.
  TraceSetting(std::string name, std::uint16_t levels, bool enabled);

  std::string const& name() const { return name_; }  ///< with its `*`
  std::uint16_t levels() const { return levels_; }   ///< bit `1 << n` for level `n`
  bool enabled() const { return enabled_; }          ///< false: switches off

  /// The name fits the whole of `facility`.
  bool matches(std::string_view facility) const;

  /// The mask of `facility` after this setting, given the one before it.
  std::uint16_t applied(std::string_view facility, std::uint16_t mask) const;

 private:
  std::string name_;
  std::uint16_t levels_;
  bool enabled_;
};

/// Writes what a person would type; all sixteen levels are left unsaid.
ZEL_EXPORT std::ostream& operator<<(std::ostream& stream, TraceSetting const& setting);

/// A list as read. `settings` keeps the order of the text, since later items win.
struct TraceSettings {
  /// An item that could not be read.
  struct BadItem {
    std::string text;    ///< without the blanks around it
    std::string reason;  ///< for people
  };
  std::deque<TraceSetting> settings;  ///< those that could be read
  std::vector<BadItem> badItems;      ///< in the order of the text
};

/// Reads a comma-separated list. Blanks around an item, and after its dash, are passed over,
/// and so is an item of nothing but blanks; what cannot be read goes to `badItems`.
ZEL_EXPORT TraceSettings traceSettingsRead(std::string_view text);

}  // namespace Zel
