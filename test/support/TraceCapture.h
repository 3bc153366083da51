#pragma once

#include "Brelo/Debug.h"
#include "support/TraceRecords.h"

namespace BreloTest {

/// Takes this thread's records with every level of one facility on.
class TraceCapture : public TraceRecords {
 public:
  explicit TraceCapture(char const* facility) {
    auto const handler = Brelo::Platform::getDebugHandler(facility);
    for (unsigned short level = 0; level < 16; ++level)
      handler->enabledIs(level, true);
  }
};

}  // namespace BreloTest
