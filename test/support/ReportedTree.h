#pragma once

#include <memory>
#include <string>

#include "Brelo/Task.h"
#include "Brelo/TaskScheduler.h"

namespace BreloTest {

class IdleTask : public Brelo::Task {
 public:
  using Task::Task;
  void taskExecute() override {}
};

class IdleTimerTask : public Brelo::TimerTask {
 public:
  using TimerTask::TimerTask;
  void taskExecute() override {}
};

/// A root whose figures are all set by hand, so that its reports are the same every time.
struct ReportedTree {
  using Duration = Brelo::TaskTimeDuration;

  ReportedTree() {
    worker->taskRunCount = 12;
    worker->taskTotalRunTime = Duration(1'500'000'000);
    worker->taskLastSchedulingLatency = Duration(250);
    worker->taskSchedulingLatencyHighWaterMark = Duration(2'000'000);
    worker->taskRunTimeHighWaterMark = Duration(1'900'000);
    worker->taskQuantumViolation200 = 3;
    worker->taskQuantumViolation500 = 1;
    worker->taskWorkCountTotal = (1ULL << 32) + 5;
    worker->taskWorkCountDecayAvg = 0.1F;
    worker->taskWorkCountHighWaterMark = Brelo::TaskMaybeU32(3'000'000'000);
    worker->taskWorkPendingIs(0);
    timer->taskRunCount = 2;
    timer->taskTotalRunTime = Duration(2'000'000'000);
    {
      auto const gone = std::make_shared<IdleTask>(root, Brelo::TaskPriority::high, "gone");
      gone->taskStatsNameIs("gone tasks");
      gone->taskRunCount = 1;
      gone->taskTotalRunTime = Duration(7);
    }
    root->clearHistory();
    root->historyEntryCountIs(4);
    root->history().insert(at(1000), Brelo::TaskSchedulerEventType::schedulerRunnable, *root);
    root->history().insert(at(9500), Brelo::TaskSchedulerEventType::runStart, *worker);
  }

  static Brelo::TaskTimePoint at(long ns) {
    return Brelo::TaskTimePoint(std::chrono::nanoseconds(ns));
  }
  /// Puts the tasks' keys in place of "@name".
  std::string withKeys(std::string text) const {
    put(text, "@worker", Brelo::TaskKey(worker.get()));
    put(text, "@timer", Brelo::TaskKey(timer.get()));
    return text;
  }
  static void put(std::string& text, std::string const& mark, Brelo::TaskKey key) {
    for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark)) {
      text.replace(at, mark.size(), key.toStrep());
    }
  }

  std::shared_ptr<Brelo::TaskSchedulerRoot> root = Brelo::schedulerRootBreloNonShared("top");
  std::shared_ptr<IdleTask> worker =
      std::make_shared<IdleTask>(root, Brelo::TaskPriority::normal, "work\"er\x01\xff");
  std::shared_ptr<IdleTimerTask> timer =
      std::make_shared<IdleTimerTask>(root, Brelo::TaskPriority::low, "tick");
  std::shared_ptr<IdleTask> idle =
      std::make_shared<IdleTask>(root, Brelo::TaskPriority::absolute, "never ran");
};

}  // namespace BreloTest
