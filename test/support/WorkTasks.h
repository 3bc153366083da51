#pragma once

#include <boost/circular_buffer.hpp>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Brelo/Task.h"
#include "Brelo/TaskScheduler.h"

namespace BreloTest {

/// A task whose work is a function, which is given the task.
template <class Base>
struct Working : Base {
  using Work = std::function<void(Working&)>;

  Working(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
          std::string const& name, Work toDo = {})
      : Base(std::move(scheduler), priority, name), work(std::move(toDo)) {}

  void taskExecute() override {
    if (work) work(*this);
  }

  Work work;
};

using WorkTask = Working<Brelo::Task>;
using WorkTimer = Working<Brelo::TimerTask>;

inline std::shared_ptr<WorkTask> workTask(
    std::shared_ptr<Brelo::TaskScheduler> scheduler, std::string const& name,
    WorkTask::Work work = {}, Brelo::TaskPriority priority = Brelo::TaskPriority::normal) {
  return std::make_shared<WorkTask>(std::move(scheduler), priority, name, std::move(work));
}

/// The registered task of that name, as what a client cannot get otherwise: a scheduler's own.
inline auto registeredTask(Brelo::TaskScheduler& scheduler, std::string const& name) {
  return std::dynamic_pointer_cast<Brelo::TaskImpl>(scheduler.taskForTest(name));
}

/// Runs without an event loop until nothing is runnable.
inline void runUntilIdle(Brelo::TaskSchedulerRoot& root) {
  while (root.schedulerHasRunnableTasks())
    root.handleSchedulerRun();
}

/// The recorded events of one subject ("N name" for a task), oldest first and each with a comma
/// behind it, and drops all events.
inline std::string takeEvents(Brelo::TaskSchedulerRoot& root, std::string const& subject) {
  std::string types;
  for (auto const& event : root.history().events()) {
    if (event.eventId().string() == subject) types = event.eventTypeDisplay() + ("," + types);
  }
  root.clearHistory();
  return types;
}

}  // namespace BreloTest
