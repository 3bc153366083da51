#include "Brelo/scheduling/TaskFairness.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Brelo::TaskPriority;

/// How many wait at each level, and which of these can be taken.
struct Waiting {
  std::uint32_t runnable(TaskPriority priority) const { return counts[priority.value()]; }
  bool ready(TaskPriority priority) const {
    return counts[priority.value()] != 0 && !held[priority.value()];
  }
  std::uint32_t counts[TaskPriority::levels] = {};
  bool held[TaskPriority::levels] = {};
};

/// The letters of so many picks, with counts that stay as they are.
std::string picks(Brelo::Impl::TaskFairness& fairness, Waiting const& waiting, unsigned count) {
  std::string letters;
  while (count-- > 0)
    letters += fairness.pick(waiting, TaskPriority::absolute).oneChar();
  return letters;
}

TEST(TaskFairness, PassesALevelOverWhenItsRunsOutweighWhatWaitsBelow) {
  Brelo::Impl::TaskFairness fairness;
  EXPECT_EQ(picks(fairness, {{0, 0, 3, 1, 0}}, 27), std::string(25, 'N') + "LN");
  EXPECT_EQ(picks(fairness, {{0, 0, 0, 0, 2}}, 2), "SS");
  EXPECT_EQ(picks(fairness, {{1, 1, 1, 100, 0}}, 3), "AAA");
  EXPECT_EQ(picks(fairness, {}, 2), "--");
  // Two steps down: `high` gives way to `normal`, which gives way to `low`.
  EXPECT_EQ(picks(fairness, {{0, 1, 1, 200, 0}}, 6), "HNHLHN");
}

TEST(TaskFairness, StaysWhereNothingBelowCanBeTaken) {
  Brelo::Impl::TaskFairness fairness;
  Waiting waiting{{0, 0, 1, 8, 0}, {false, false, false, true, false}};
  EXPECT_EQ(picks(fairness, waiting, 5), "NNNNN");
  waiting.held[TaskPriority::low.value()] = false;
  EXPECT_EQ(picks(fairness, waiting, 5), "LNNLN");
}

}  // namespace
