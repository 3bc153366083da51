#pragma once

#include "Zel/Activity.h"
#include "Zel/System.h"

namespace BreloTest {

/// Moves the host's clock forward by so many seconds, as virtual time does.
inline void skipTime(double seconds) {
  auto const& settings = Zel::ActivityFacility::activityManagerConfig();
  bool const virtualTime = settings->virtualTime();
  settings->virtualTimeIs(true);
  settings->executionTimeIs(seconds);
  Zel::System::doRun();
  settings->virtualTimeIs(virtualTime);
}

}  // namespace BreloTest
