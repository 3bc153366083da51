#include "Zel/internal/TraceRegistry.h"

#include <pthread.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "Zel/internal/StandardError.h"
#include "Zel/internal/TraceFormat.h"

namespace Zel {

namespace {

std::string environmentValue(char const* name) {
  char const* const value = ::secure_getenv(name);
  return value == nullptr ? "" : value;
}

std::string complaint(TraceSettings::BadItem const& item) {
  std::string shown = item.text;
  std::replace_if(
      shown.begin(), shown.end(), [](unsigned char c) { return std::iscntrl(c); }, '?');
  return "Zel: TRACE item \"" + shown + "\" has no effect: " + item.reason + "\n";
}

[[maybe_unused]] TraceRegistry& readAtLoad = TraceRegistry::instance();

}  // namespace

TraceRegistry& TraceRegistry::instance() {
  static TraceRegistry& registry = *new TraceRegistry;
  return registry;
}

TraceRegistry::TraceRegistry() {
  ::pthread_atfork([] { traceLock.lock(); }, [] { traceLock.unlock(); },
                   [] { traceLock.unlock(); });
  ::tzset();  // else the first record that shows local time would read the environment
  readEnvironment();
}

TraceFacility& TraceRegistry::facilityIs(String const& name, bool allLevels) {
  std::lock_guard<std::mutex> const guard(traceLock);
  std::unique_ptr<TraceFacility>& facility = facilities_[name];
  if (facility == nullptr) {
    facility.reset(new TraceFacility(name, allLevels ? 0xffff : 0));
    facility->settingsAre(settings_);
  }
  return *facility;
}

void TraceRegistry::readEnvironment() {
  std::string complaints;
  {
    std::lock_guard<std::mutex> const guard(traceLock);
    TraceSettings read = traceSettingsRead(environmentValue("TRACE"));
    settings_ = std::move(read.settings);
    for (TraceSettings::BadItem const& item : read.badItems) {
      if (badItemsReported_.insert(item.text).second) complaints += complaint(item);
    }
    for (auto const& entry : facilities_) {
      entry.second->settingsAre(settings_);
    }
    std::string format = environmentValue("TRACEFORMAT");
    if (format.empty()) format = traceFormatDefault;
    format_.store(&*formats_.insert(std::move(format)).first, std::memory_order_release);
  }
  writeStandardError(complaints);
}

std::deque<TraceSetting> TraceRegistry::settings() const {
  std::lock_guard<std::mutex> const guard(traceLock);
  return settings_;
}

}  // namespace Zel
