// Lengths of time against the sorted samples themselves.
#include "BreloObserve/Histogram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include "support/FailingMemory.h"

namespace {

using BreloObserve::Histogram;
using std::chrono::nanoseconds;

constexpr double shares[] = {0, 0.001, 0.1, 0.25, 0.5, 0.9, 0.99, 0.999, 0.9999, 1};

nanoseconds sampleAt(std::vector<std::int64_t> const& sorted, double share) {
  auto const rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
  return nanoseconds(sorted[rank == 0 ? 0 : rank - 1]);
}

void expectFiguresOf(std::vector<std::int64_t> sorted, Histogram const& histogram) {
  std::sort(sorted.begin(), sorted.end());
  double sum = 0;
  for (std::int64_t const sample : sorted)
    sum += static_cast<double>(sample);
  ASSERT_EQ(histogram.count(), sorted.size());
  EXPECT_EQ(histogram.max(), nanoseconds(sorted.back()));
  EXPECT_NEAR(histogram.sum(), sum, sum * 1e-12);
  for (double const share : shares) {
    auto const exact = static_cast<double>(sampleAt(sorted, share).count());
    auto const found = static_cast<double>(histogram.percentile(share).count());
    EXPECT_NEAR(found, exact, exact / 64) << share;
  }
  std::uint64_t counted = 0;
  nanoseconds before{};
  for (Histogram::Bucket const& bucket : histogram.buckets()) {
    EXPECT_LE(before, bucket.lower);
    auto const from = std::lower_bound(sorted.begin(), sorted.end(), bucket.lower.count());
    auto const to = std::lower_bound(sorted.begin(), sorted.end(), bucket.upper.count());
    EXPECT_EQ(bucket.count, static_cast<std::uint64_t>(to - from)) << bucket.lower.count();
    counted += bucket.count;
    before = bucket.upper;
  }
  EXPECT_EQ(counted, sorted.size());
}

TEST(Histogram, AgreesWithSortedSamplesMergedOrNot) {
  std::mt19937_64 random(7);
  auto const in = [&](double low, double high) {
    return std::uniform_real_distribution<double>(low, high)(random);
  };
  std::function<double()> const distributions[] = {
      [&] { return in(0, 40); },
      [&] { return in(0, 1e6); },
      [&] { return std::exp(in(0, 43)); },
      [&] { return std::lognormal_distribution<double>(10, 2)(random); },
      [&] { return std::exponential_distribution<double>(1e-5)(random); },
      [&] { return in(0, 1) < 0.99 ? in(900, 1100) : in(1e8, 1.1e8); },
      [&] { return 12345.0; },
      [&] { return std::ldexp(1, static_cast<int>(in(0, 62))) + std::floor(in(0, 3)) - 1; },
  };
  for (auto const& distribution : distributions) {
    Histogram whole;
    Histogram parts[3];
    std::vector<std::int64_t> samples;
    for (unsigned i = 0; i < 20'000; ++i) {
      samples.push_back(static_cast<std::int64_t>(distribution()));
      EXPECT_TRUE(whole.add(nanoseconds(samples.back())));
      EXPECT_TRUE(parts[i % 3].add(nanoseconds(samples.back())));
    }
    expectFiguresOf(samples, whole);
    Histogram merged = parts[0];
    merged.merge(parts[1]);
    merged.merge(parts[2]);
    expectFiguresOf(samples, merged);
    merged.clear();
    merged.add(nanoseconds(5));
    expectFiguresOf({5}, merged);
    whole.merge(whole);
    auto const once = samples;
    samples.insert(samples.end(), once.begin(), once.end());
    expectFiguresOf(samples, whole);
  }
}

TEST(Histogram, EndsOfTheRangeAndCountsBeyond32Bits) {
  Histogram histogram;
  EXPECT_EQ(histogram.percentile(0.5), nanoseconds(0));
  EXPECT_EQ(histogram.mean(), 0);
  EXPECT_TRUE(histogram.add(nanoseconds(-5)));
  EXPECT_TRUE(histogram.add(nanoseconds::max()));
  EXPECT_EQ(histogram.percentile(0.5), nanoseconds(0));
  EXPECT_EQ(histogram.percentile(1), nanoseconds::max());
  EXPECT_EQ(histogram.buckets().back().upper, nanoseconds::max());

  // A carry for each of two buckets, and a sum of more than 64 bits.
  std::uint64_t const many = 5'000'000'000;
  histogram.clear();
  EXPECT_TRUE(histogram.add(std::chrono::hours(1), many));
  EXPECT_TRUE(histogram.add(nanoseconds(20), std::numeric_limits<std::uint32_t>::max()));
  EXPECT_TRUE(histogram.add(nanoseconds(20)));
  EXPECT_TRUE(histogram.add(nanoseconds(20)));
  Histogram merged = histogram;
  merged.merge(histogram);
  EXPECT_EQ(merged.count(), 2 * (many + 4'294'967'297));
  EXPECT_NEAR(merged.sum(), 2 * 3.6e12 * 5e9, 1e15);
  auto const buckets = merged.buckets();
  ASSERT_EQ(buckets.size(), 2U);
  EXPECT_EQ(buckets[0].count, 2 * 4'294'967'297U);
  EXPECT_EQ(buckets[1].count, 2 * many);
  EXPECT_EQ(merged.percentile(0.46), nanoseconds(20));
  EXPECT_NEAR(static_cast<double>(merged.percentile(0.47).count()), 3.6e12, 3.6e12 / 64);
  merged.clear();
  EXPECT_TRUE(merged.buckets().empty());
}

TEST(Histogram, WithoutMemoryNothingIsCounted) {
  Histogram histogram;
  histogram.add(nanoseconds(1000), std::numeric_limits<std::uint32_t>::max());
  Histogram const before = histogram;
  for (auto const& [length, what] : {std::pair(5, "an octave"), std::pair(1000, "a carry")}) {
    BreloTest::FailingMemory const memory(1);
    EXPECT_FALSE(histogram.add(nanoseconds(length))) << what;
    EXPECT_TRUE(memory.failed()) << what;
  }
  EXPECT_EQ(histogram.count(), before.count());
  EXPECT_EQ(histogram.sum(), before.sum());
  EXPECT_TRUE(histogram.add(nanoseconds(1000)));
  EXPECT_TRUE(histogram.add(nanoseconds(5)));
  EXPECT_EQ(histogram.count(), before.count() + 2);
  EXPECT_EQ(histogram.percentile(0.000'000'000'1), nanoseconds(5));
}

}  // namespace
