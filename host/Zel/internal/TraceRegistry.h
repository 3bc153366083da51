#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "Zel/String.h"
#include "Zel/Trace.h"

namespace Zel {

/// All facilities, the settings that govern them, and the format. The one instance is
/// made on first use, at the latest when the library is loaded, and never destroyed. Any thread.
class TraceRegistry {
 public:
  static TraceRegistry& instance();

  TraceFacility& facilityIs(String const& name, bool allLevels);
  void readEnvironment();
  std::deque<TraceSetting> settings() const;

  /// Takes no lock; the text stays for ever.
  std::string const& format() const { return *format_.load(std::memory_order_acquire); }

 private:
  TraceRegistry();

  std::map<String, std::unique_ptr<TraceFacility>> facilities_;
  std::deque<TraceSetting> settings_;
  std::set<std::string> badItemsReported_;
  std::set<std::string> formats_;  // only grows: a tracing thread may be reading any of them
  std::atomic<std::string const*> format_;
};

}  // namespace Zel
