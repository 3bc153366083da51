// What must not allocate. The whole program's `operator new` and libevent's memory are counted.

#include <event2/event.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>

#include "Brelo/Platform.h"
#include "support/Backend.h"
#include "support/WorkTasks.h"

static std::atomic<unsigned long> allocated{0};

static void* counted(std::size_t size) {
  ++allocated;
  return std::malloc(size);
}

// Out of line, since the compiler would take an inlined free() for a mismatch. Both forms of
// delete are here, since sanitizers bring their own: memory goes back the way it came.
[[gnu::noinline]] void* operator new(std::size_t size) {
  return counted(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

using namespace BreloTest;

class Allocation : public OnBothBackends {
 protected:
  static void SetUpTestSuite() { event_set_mem_functions(counted, std::realloc, std::free); }
};
INSTANTIATE_BOTH_BACKENDS(Allocation);

TEST_P(Allocation, IsNotMadeToScheduleRunAndStop) {
  run([] {
    unsigned long settled = allocated;
    auto const root = Brelo::schedulerRootBreloNonShared("r");
    root->historyEntryCountIs(5);  // soon full, so that inserts overwrite
    auto const task = workTask(root, "task");
    auto const first = std::make_shared<WorkTimer>(root, Brelo::TaskPriority::low, "first");
    auto const later = std::make_shared<WorkTimer>(root, Brelo::TaskPriority::low, "later");
    first->scheduleTaskDelay(50.0);
    EXPECT_GT(allocated, settled + 4);
    for (int i = 0; i < 100; ++i) {
      task->scheduleTask();
      task->unscheduleTask();
      task->scheduleTask();
      task->taskSuspendedIs(true);
      task->taskSuspendedIs(false);
      later->scheduleTaskDelay(100.0 + i);
      later->stopTimerTask();
      Brelo::Platform::doEventLoop(0.0005);
      if (i == 0) settled = allocated;
    }
    EXPECT_EQ(allocated, settled);
    EXPECT_EQ(task->taskRunCount, 100u);
  });
}

}  // namespace
