#include "figures/Histogram.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>

namespace Tool {

namespace {

/// The steps that a daemon's histograms have in each octave.
constexpr double octaveSteps = 32;

/// Where a bucket begins, of which documents tell only the end.
double bucketBegin(double below) {
  if (below <= 2 * octaveSteps) return std::max(0.0, below - 1);
  int exponent = 0;
  double fraction = std::frexp(below, &exponent);  // in [0.5, 1)
  if (fraction == 0.5) --exponent;                 // the end of an octave belongs to the next one
  return below - std::ldexp(1.0, exponent - 1) / octaveSteps;
}

}  // namespace

double Histogram::count() const {
  double sum = 0;
  for (auto const& bucket : buckets)
    sum += bucket.count;
  return sum;
}

double Histogram::percentile(double share) const {
  double left = std::ceil(share * count());
  double end = 0;
  for (auto const& bucket : buckets) {
    double begin = std::max(end, bucketBegin(bucket.below));
    end = bucket.below;
    left -= bucket.count;
    if (left <= 0 && bucket.count > 0) return std::floor((begin + end) / 2);
  }
  return 0;
}

void Histogram::add(Histogram const& other) {
  std::vector<Bucket> merged;
  merged.reserve(buckets.size() + other.buckets.size());
  std::merge(buckets.begin(), buckets.end(), other.buckets.begin(), other.buckets.end(),
             std::back_inserter(merged),
             [](Bucket const& a, Bucket const& b) { return a.below < b.below; });
  buckets.clear();
  for (auto const& bucket : merged) {
    if (!buckets.empty() && buckets.back().below == bucket.below) {
      buckets.back().count += bucket.count;
    } else {
      buckets.push_back(bucket);
    }
  }
}

Histogram difference(Histogram const& now, Histogram const& before) {
  Histogram result;
  std::size_t old = 0;
  for (auto const& bucket : now.buckets) {
    while (old < before.buckets.size() && before.buckets[old].below < bucket.below)
      ++old;
    bool known = old < before.buckets.size() && before.buckets[old].below == bucket.below;
    double count = bucket.count - (known ? before.buckets[old].count : 0);
    if (count > 0) result.buckets.push_back({bucket.below, count});
  }
  return result;
}

}  // namespace Tool
