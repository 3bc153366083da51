#include "Brelo/scheduling/SchedulerDiagnostics.h"

#include <cassert>

namespace Brelo::Impl {

ModuleTrace const schedulerTrace("TaskScheduler");

void schedulerAssertFail(Platform::DebugStream const& text, char const* func, unsigned line) {
  __assert_fail(text.str().c_str(), "Brelo/TaskScheduler", line, func);
}

}  // namespace Brelo::Impl
