#pragma once

#include <algorithm>
#include <boost/circular_buffer.hpp>
#include <string>
#include <vector>

#include "Brelo/TaskScheduler.h"

namespace BreloTest {

/// A root that counts the runs it asks for and the platform callbacks that arrive.
class CountingRoot : public Brelo::TaskSchedulerRoot {
 public:
  using TaskSchedulerRoot::TaskSchedulerRoot;

  void requestSchedulerRun() override {
    ++requests;
    TaskSchedulerRoot::requestSchedulerRun();
  }
  void callback() override {
    ++callbacks;
    TaskSchedulerRoot::callback();
  }

  unsigned requests = 0;
  unsigned callbacks = 0;
};

/// The events of the whole tree as they are displayed, oldest first, and drops them.
inline std::vector<std::string> takeAllEvents(Brelo::TaskSchedulerRoot& root) {
  std::vector<std::string> events;
  for (auto const& event : root.history().events())
    events.push_back(event.display());
  std::reverse(events.begin(), events.end());
  root.clearHistory();
  return events;
}

}  // namespace BreloTest
