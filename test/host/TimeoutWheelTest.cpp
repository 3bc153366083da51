#include <gtest/gtest.h>
#include <timeout.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <random>
#include <utility>
#include <vector>

namespace {

constexpr timeout_t lastTick = std::numeric_limits<timeout_t>::max();

/// Random operations on a wheel and on a map that holds the same timers, expired ones included, by
/// their ticks and the order of adding.
void compareWithSortedMap(timeout_t now, unsigned seed) {
  std::vector<struct timeout> timers(200, {TIMEOUT_ABS, 0, nullptr, {}});
  std::vector<std::pair<timeout_t, int>> keys(timers.size());
  std::map<std::pair<timeout_t, int>, struct timeout*> model;
  int error = -1;
  timeouts* const wheel = timeouts_open(100, &error);
  ASSERT_EQ(error, 0);
  timeouts_update(wheel, now);
  std::mt19937_64 random{seed};
  for (int step = 1; step <= 1000 && !testing::Test::HasFailure(); ++step) {
    auto const bits = random() % (seed % 64 + 1);
    timeout_t const distance = random() >> (63 - bits);
    timeout_t const ticks[] = {
        now + std::min(distance, lastTick - now), now - std::min(distance, now),
        now | ((timeout_t{2} << bits) - 1),  // the last one of a slot
        timers[0].expires, model.empty() ? now : now + timeouts_timeout(wheel)};
    timeout_t const tick = ticks[random() % std::size(ticks)];
    auto const i = random() % timers.size();
    auto const operation = random() % 16;
    if (operation < 10) {
      model.erase(std::exchange(keys[i], {tick, step}));
      operation < 2 ? timeouts_del(wheel, &timers[i]) : timeouts_add(wheel, &timers[i], tick);
      if (operation >= 2) model[keys[i]] = &timers[i];
    } else if (operation < 12) {
      timeouts_update(wheel, tick);
      now = std::max(now, tick);  // time does not go back
    } else {
      while (auto* const next = timeouts_get(wheel)) {
        auto const first = model.lower_bound({next->expires, 0});
        ASSERT_TRUE(first != model.end() && first->second == next && next->expires <= now);
        model.erase(first);
      }
    }
    bool const expired = !model.empty() && model.begin()->first.first <= now;
    EXPECT_EQ(timeouts_expired(wheel), expired);
    EXPECT_EQ(timeouts_pending(wheel), !model.empty() && model.rbegin()->first.first > now);
    timeout_t const wait = timeouts_timeout(wheel);
    EXPECT_EQ(wait == 0, expired);
    EXPECT_LE(wait, expired || model.empty() ? lastTick : model.begin()->first.first - now);
  }
  timeouts_close(wheel);
}

TEST(TimeoutWheel, AgreesWithSortedMap) {
  timeout_t const starts[] = {0, 170'000'000'000, (timeout_t{1} << 63) - 1000, lastTick - 100'000};
  for (unsigned seed = 0; seed < 640 && !HasFailure(); ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    compareWithSortedMap(starts[seed / 64 % std::size(starts)], seed);
  }
}

TEST(TimeoutWheel, ReleasedTimerIsTheClientsAndRelativeTicksEndWithTheLast) {
  int error = -1;
  timeouts* const wheel = timeouts_open(100, &error);
  struct timeout timer;
  timeouts_add(wheel, timeout_init(&timer, ~TIMEOUT_ABS), 0);
  EXPECT_EQ(timeouts_get(wheel), &timer);
  timeouts_update(wheel, 60);
  timeouts_add(wheel, &timer, lastTick - 59);
  EXPECT_EQ(timer.expires, lastTick);
  EXPECT_EQ(timer.flags, ~TIMEOUT_ABS);
  timeouts_close(wheel);
  EXPECT_EQ(timer.pending, nullptr);
}

}  // namespace
