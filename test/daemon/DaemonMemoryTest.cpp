#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <string>

#include "Brelo/Time.h"
#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/FunctionTask.h"
#include "BreloDaemon/FunctionTimer.h"
#include "BreloDaemon/StopStep.h"
#include "support/Backend.h"
#include "support/FailingMemory.h"

namespace BreloDaemon {
namespace {

using namespace BreloTest;
using namespace std::chrono_literals;
using Brelo::TaskPriority;

class DaemonMemory : public OnBothBackends {};
INSTANTIATE_BOTH_BACKENDS(DaemonMemory);

TEST_P(DaemonMemory, EachAllocationOfARunMayFailAndItEndsInOrder) {
  bool failed = true;
  for (unsigned long nth = 1; failed && !HasFailure(); ++nth) {
    SCOPED_TRACE(nth);
    run([&] {
      Daemon daemon("test");
      int ticks = 0;
      bool ended = false;
      daemon.onStop("last", [&] { ended = true; });
      FunctionTimer timer(daemon.scheduler(), TaskPriority::normal, "timer", [&] {
        if (++ticks == 3) raise(SIGTERM);
      });
      std::unique_ptr<StopStep> waits;
      FunctionTask later(daemon.scheduler(), TaskPriority::low, "later", [&] { waits.reset(); });
      waits = std::make_unique<StopStep>("waits", nullptr, [&] { later.schedule(); });
      timer.every(1ms);
      double const start = Brelo::time();
      testing::internal::CaptureStderr();
      int status = -1;
      {
        FailingMemory memory(nth);
        EXPECT_NO_THROW(status = daemon.run());
        failed = memory.failed();
      }
      std::string const said = testing::internal::GetCapturedStderr();
      EXPECT_EQ(status, 0) << said;
      EXPECT_TRUE(ended) << said;
      EXPECT_LT(Brelo::time() - start, 5) << said;
    });
  }
}

}  // namespace
}  // namespace BreloDaemon
