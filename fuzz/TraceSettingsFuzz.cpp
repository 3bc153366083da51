#include <algorithm>
#include <sstream>

#include "Check.h"
#include "Zel/TraceSettings.h"
#include "Zel/internal/TraceFormat.h"

namespace {

using BreloFuzz::check;

/// What was read is written as it would be read again.
void checkSettings(std::string const& list, std::string const& facility) {
  Zel::TraceSettings const read = Zel::traceSettingsRead(list);
  std::ostringstream written;
  for (auto const& setting : read.settings) {
    written << setting << ',';
    check(setting.levels() != 0 && !setting.name().empty());
    unsigned const mask = setting.applied(facility, 0x5555) & setting.levels();
    if (setting.matches(facility)) check(mask == (setting.enabled() ? setting.levels() : 0));
  }
  for (auto const& item : read.badItems)
    check(list.find(item.text) != std::string::npos && !item.text.empty());

  Zel::TraceSettings const again = Zel::traceSettingsRead(written.str());
  check(again.badItems.empty() && again.settings.size() == read.settings.size());
  for (std::size_t i = 0; i < read.settings.size(); ++i) {
    check(again.settings[i].name() == read.settings[i].name());
    check(again.settings[i].levels() == read.settings[i].levels());
    check(again.settings[i].enabled() == read.settings[i].enabled());
  }
}

/// A record is one line's end longer than its text, and a text without directives is kept.
void checkFormat(std::string const& format) {
  std::string const line =
      Zel::traceFormatRender(format, {"Facility", 3, "file.cpp", 12, "func", "message"});
  check(line.back() == '\n' && (line.size() == 1 || line[line.size() - 2] != '\n'));
  if (format.find('%') == std::string::npos)
    check(line == format.substr(0, format.find_last_not_of('\n') + 1) + '\n');
}

}  // namespace

/// The settings, and after the first zero byte the format, which is also a facility's name.
int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text = BreloFuzz::toText(data, size);
  std::size_t const end = std::min(text.find('\0'), size);
  std::string const rest = text.substr(std::min(end + 1, size));
  checkSettings(text.substr(0, end), rest);
  checkFormat(rest);
  return 0;
}
