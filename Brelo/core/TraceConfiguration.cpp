// The environment is the only store of the trace settings; the host reads and applies it.

#include <cstdlib>
#include <iostream>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "Brelo/Debug.h"
#include "Zel/Entity.h"
#include "Zel/System.h"
#include "Zel/Trace.h"

namespace Brelo::Platform {

namespace {

std::shared_ptr<Zel::TraceFacilityMan> traceFacilityMan() {
  return Zel::Entity::singletonIs<Zel::TraceFacilityMan>();
}

}  // namespace

void setupBreloDebug(char const* settings) noexcept {
  if (settings == nullptr) return;
  auto const manager = traceFacilityMan();
  std::string value = Zel::System::getenv("TRACE").str();
  if (!value.empty()) value += ',';
  value += settings;
  ::setenv("TRACE", value.c_str(), 1);
  manager->doReadEnvironment();
}

void clearBreloDebug(char const* settings) noexcept {
  if (settings == nullptr) return;
  std::string negated = "-";
  for (; *settings != '\0'; ++settings) {
    negated += *settings;
    if (*settings == ',') negated += '-';
  }
  setupBreloDebug(negated.c_str());
}

std::string breloDebugSettings() {
  DebugStream list;
  char const* separator = "";
  for (Zel::TraceSetting const& setting : traceFacilityMan()->traceSettingSnapshot()) {
    list << std::exchange(separator, ",") << setting;
  }
  return list.str();
}

void dumpBreloDebugMap() noexcept {
  for (Zel::TraceSetting const& setting : traceFacilityMan()->traceSettingSnapshot()) {
    std::cout << setting << std::endl;
  }
}

void setTraceFormat(char const* format) noexcept {
  if (format == nullptr) return;
  auto const manager = traceFacilityMan();
  ::setenv("TRACEFORMAT", format, 1);
  manager->doReadEnvironment();
}

// The variable comes first, so that a manager made here starts with the cleared value.
void clearTraceFormat() noexcept {
  ::setenv("TRACEFORMAT", "", 1);
  traceFacilityMan()->doReadEnvironment();
}

}  // namespace Brelo::Platform
