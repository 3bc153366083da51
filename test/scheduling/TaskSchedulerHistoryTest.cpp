#include "Brelo/TaskSchedulerHistory.h"

#include <gtest/gtest.h>
#include <boost/circular_buffer.hpp>

#include <chrono>
#include <sstream>
#include <string>

#include "support/WorkTasks.h"

namespace {

using Type = Brelo::TaskSchedulerEventType;

TEST(History, KeepsTheNewestEventsAndTheirNames) {
  auto const root = Brelo::schedulerRootBreloNonShared("root");
  auto task = BreloTest::workTask(root, "job");
  Brelo::TaskSchedulerHistory history(3);
  auto const insert = [&](std::int64_t time, Type type, auto const& subject) {
    history.insert(Brelo::TaskTimePoint(std::chrono::nanoseconds(time)), type, subject);
  };
  auto const times = [&] {
    std::string text;
    for (auto const& event : history.events())
      text += std::to_string(event.eventTime().time_since_epoch().count());
    return text;
  };
  EXPECT_DEATH(insert(0, Type::schedulerIdle, *task), "Assertion `EventType: 17' failed");
  using Event = Brelo::TaskSchedulerHistory::Event;
  EXPECT_EQ(Event({}, Type::busy, *task).display(), "busy         N job");
  EXPECT_EQ(Event({}, Type::schedulerIdle, *root).display(), "schedulerIdle root");
  EXPECT_DEATH(Event({}, Type::busy, *root), "Assertion `EventType: ");
  for (int const time : {1, 2, 3, 4, 5})
    insert(time, Type::schedule, *task);
  history.capacityIs(2);
  history.capacityIs(3);
  EXPECT_EQ(times(), "54");

  task->includeInCompletedTaskIs(false);
  insert(1'000'000, Type::runStart, *task);
  insert(123'456'789'012'345, Type::schedulerUnsuspended, *root);
  insert(123'456'789'014'344, Type::unschedule, *task);
  task.reset();
  root->clearHistory();
  std::ostringstream text;
  history.renderText(text);
  EXPECT_EQ(text.str(),
            "Last 3 scheduler events, absolute timestamp and relative to last event\n"
            "----------------------------------------------------------------------\n"
            "       123456789014344 ns since boot          0 µs unschedule   N job\n"
            "       123456789012345 ns since boot          1 µs schedulerUnsuspended root\n"
            "               1000000 ns since boot 123456788014 µs run start    N job\n"
            "\n");
  auto const names = root->history().stringCache().size();
  history.capacityIs(0);
  EXPECT_EQ(root->history().stringCache().size(), names - 1);
  insert(9, Type::schedulerIdle, *root);
  EXPECT_EQ(times(), "");
}

TEST(History, NamesOfWhatHasEndedStayUntilTheirLastEventHasMadeRoom) {
  auto const root = Brelo::schedulerRootBreloNonShared("root");
  root->historyEntryCountIs(4);
  auto& cache = root->history().stringCache();
  auto const steady = BreloTest::workTask(root, "steady");
  auto const names = cache.size();
  auto const events = [&](int count) {
    for (; count > 0; --count)
      steady->taskHistoryInsert({}, Type::schedule);
  };
  auto const ended = [&](char const* name) {
    auto const task = BreloTest::workTask(root, name);
    task->includeInCompletedTaskIs(false);
  };
  events(9);
  ended("once");
  events(3);
  EXPECT_EQ(cache.size(), names + 1);
  EXPECT_EQ(root->history().events().back().eventId().string(), "N once");
  events(1);
  EXPECT_EQ(cache.size(), names);

  // A name that comes back stays from its latest end; a copy of an event keeps it for itself.
  ended("twice");
  events(2);
  ended("twice");
  events(3);
  auto copy = root->history().events().back();
  events(1);
  EXPECT_EQ(copy.eventId().string(), "N twice");
  EXPECT_EQ(cache.size(), names + 1);
  copy = root->history().events().back();
  EXPECT_EQ(cache.size(), names);

  ended("shrunk");
  root->historyEntryCountIs(1);
  EXPECT_EQ(cache.size(), names + 1);
  root->historyEntryCountIs(0);
  EXPECT_EQ(cache.size(), names);
  root->historyEntryCountIs(4);
  ended("cleared");
  Brelo::TaskGroup::TaskGroupIs("group", Brelo::TaskPriority::low, false, root);
  root->clearStats();  // of the group's parent task
  EXPECT_EQ(cache.size(), names + 3);
  root->clearHistory();
  EXPECT_EQ(cache.size(), names);
}

}  // namespace
