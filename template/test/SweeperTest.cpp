#include "Sweeper.h"

#include <gtest/gtest.h>

#include "Brelo/Platform.h"
#include "Brelo/TaskSchedulerRoot.h"

using namespace std::chrono_literals;

// A day passes at once: the loop moves the clock to the next timer in place of waiting for it.
TEST(Sweeper, SweepsEachHourAndInPieces) {
  Brelo::Platform::setFastForward(true);
  auto const scheduler = Brelo::schedulerRootBrelo();
  int sweeps = 0;
  int pieces = 0;
  auto const sweeper = std::make_shared<Sweeper>(scheduler, 1h, [&] {
    if (++pieces % 3 != 0) return true;
    ++sweeps;
    return false;
  });
  sweeper->taskForceYieldInTestIs(true);  // a slice is one piece, however fast it is
  sweeper->start();
  Brelo::Platform::doEventLoop(24 * 3600 + 60);
  EXPECT_EQ(sweeps, 24);
  EXPECT_EQ(sweeper->taskRunCount, 3U * 24);
}
