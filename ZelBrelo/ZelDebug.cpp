#include "ZelBrelo/ZelDebug.h"

namespace ZelBrelo {

ZelDebug::ZelDebug(std::string const& name)
    : Zel::TraceHandle(name, false), Brelo::Platform::DebugHandler(name) {
  if (auto const* levels = facility().levelsEnabledPtr()) levelsEnabled_ = levels;
}

void ZelDebug::enabledIs(unsigned short level, bool enabled) {
  facility().levelEnabledIs(level, enabled);
}

void ZelDebug::dump(Brelo::Platform::DebugStream& stream, unsigned short level, char const* file,
                    char const* func, int line) const {
  Zel::traceHelper(facility(), stream, level, file, line, func);
}

}  // namespace ZelBrelo

namespace Brelo::Platform {

std::shared_ptr<DebugHandler> getDebugHandler(std::string const& name) noexcept {
  return std::make_shared<ZelBrelo::ZelDebug>(name);
}

}  // namespace Brelo::Platform
