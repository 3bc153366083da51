// Two groups of very different size get equal shares of the processor.
//
//   build/release/example/fair_groups
//
// First all tasks stand side by side, and the crowd gets nearly everything. Then each side is a
// task group, which competes with the other as one task, however many tasks it holds.
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Brelo/Task.h"
#include "Brelo/TaskGroup.h"
#include "Brelo/TaskSchedulerRoot.h"

using namespace std::chrono_literals;

/// Always has something to do.
class BusyTask : public Brelo::Task {
 public:
  using Task::Task;
  void taskExecute() override {
    auto const end = std::chrono::steady_clock::now() + 100us;
    while (std::chrono::steady_clock::now() < end && !taskShouldYield())
      continue;
    scheduleTask();  // behind the others
  }
};

using Tasks = std::vector<std::shared_ptr<BusyTask>>;

Tasks busyTasks(std::shared_ptr<Brelo::TaskScheduler> const& scheduler, int count) {
  Tasks tasks;
  for (int i = 0; i < count; ++i) {
    tasks.push_back(std::make_shared<BusyTask>(scheduler, Brelo::TaskPriority::low,
                                               "busy " + std::to_string(i)));
    tasks.back()->scheduleTask();
  }
  return tasks;
}

double runTime(Tasks const& tasks) {
  Brelo::TaskTimeDuration sum;
  for (auto const& task : tasks)
    sum += task->getStats().taskTotalRunTime;
  return static_cast<double>(sum.count());
}

/// Lets a pair and a crowd compete for a while, and prints what each has got.
void compete(char const* how, std::shared_ptr<Brelo::TaskScheduler> const& pairs,
             std::shared_ptr<Brelo::TaskScheduler> const& crowds) {
  Tasks const pair = busyTasks(pairs, 2);
  Tasks const crowd = busyTasks(crowds, 38);
  Brelo::Platform::doEventLoop(0.4);
  double const percent = 100 * runTime(pair) / (runTime(pair) + runTime(crowd));
  std::printf("%s: 2 tasks got %.0f%%, 38 tasks got %.0f%%\n", how, percent, 100 - percent);
}

std::shared_ptr<Brelo::TaskGroup> group(std::string const& name) {
  auto group = Brelo::TaskGroup::TaskGroupIs(name, Brelo::TaskPriority::low, false,
                                             Brelo::schedulerRootBrelo());
  group->taskGroupQuantumIs(5ms);  // so long is a slice, and so long do events wait for its end
  return group;
}

int main() {
  auto const root = Brelo::schedulerRootBrelo();
  compete("side by side", root, root);
  compete("in two groups", group("pair"), group("crowd"));
}
