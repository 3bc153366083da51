#include "Zel/Trace.h"

#include <atomic>
#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "Zel/internal/StandardError.h"
#include "Zel/internal/TraceFormat.h"
#include "Zel/internal/TraceRegistry.h"

namespace Zel {

namespace {

std::atomic<TraceSink> traceSink = nullptr;

std::string_view orEmpty(char const* text) {
  return text == nullptr ? std::string_view() : std::string_view(text);
}

}  // namespace

TraceFacility::TraceFacility(String name, std::uint16_t unsetLevels)
    : name_(std::move(name)), unsetLevels_(unsetLevels), levels_(unsetLevels) {}

void TraceFacility::levelEnabledIs(FacilityLevel level, bool enabled) {
  if (level > 15) return;
  auto const bit = static_cast<std::uint16_t>(1u << level);
  if (enabled) {
    __atomic_fetch_or(&levels_, bit, __ATOMIC_RELAXED);
  } else {
    __atomic_fetch_and(&levels_, static_cast<std::uint16_t>(~bit), __ATOMIC_RELAXED);
  }
}

void TraceFacility::settingsAre(std::deque<TraceSetting> const& settings) {
  std::uint16_t mask = unsetLevels_;
  for (TraceSetting const& setting : settings) {
    mask = setting.applied(name_.str(), mask);
  }
  __atomic_store_n(&levels_, mask, __ATOMIC_RELAXED);
}

TraceHandle::TraceHandle(String const& name, bool allLevels)
    : facility_(TraceRegistry::instance().facilityIs(name, allLevels)) {}

void TraceFacilityMan::doReadEnvironment() {
  TraceRegistry::instance().readEnvironment();
}

std::deque<TraceSetting> TraceFacilityMan::traceSettingSnapshot() const {
  return TraceRegistry::instance().settings();
}

void formatAndWriteTraceString(char const* facility, char const* file, int line, char const* func,
                               char const* message, std::size_t length, FacilityLevel level) {
  int const savedErrno = errno;
  TraceRecord const record = {orEmpty(facility), level, orEmpty(file), line, orEmpty(func),
                              {message, length}};
  std::string const text = traceFormatRender(TraceRegistry::instance().format(), record);
  if (TraceSink const sink = traceSink.load(std::memory_order_acquire)) {
    sink(text.data(), text.size());
  } else {
    writeStandardError(text);
  }
  errno = savedErrno;
}

void traceHelper(TraceFacility const& facility, std::stringstream const& stream,
                 FacilityLevel level, char const* file, int line, char const* func) {
  std::string const message = stream.str();
  formatAndWriteTraceString(facility.name().str().c_str(), file, line, func, message.data(),
                            message.size(), level);
}

void traceSinkIs(TraceSink sink) {
  traceSink.store(sink, std::memory_order_release);
}

}  // namespace Zel
