#pragma once

#include <vector>

namespace Tool {

/// Durations in buckets, as a daemon's documents carry them: in ascending order those buckets that
/// are not empty, each with the bound that all its values are below. Counts are whole numbers in
/// doubles, so that nothing a daemon says can make them wrap.
struct Histogram {
  struct Bucket {
    double below;  ///< nanoseconds
    double count;
  };
  std::vector<Bucket> buckets;

  double count() const;  ///< of all values
  /// The value in nanoseconds that so great a share of the values does not exceed: the middle of
  /// its bucket, or 0 of an empty histogram. A share of 1 gives the largest one.
  double percentile(double share) const;
  void add(Histogram const& other);
};

/// What has come to `before` since; buckets that have shrunk count as empty.
Histogram difference(Histogram const& now, Histogram const& before);

}  // namespace Tool
