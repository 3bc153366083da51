#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Brelo/Export.h"

namespace BreloObserve {

/// How lengths of time are distributed: how many fell into each of 32 steps of each octave, so that
/// a percentile is off by 1.6 % at most. Count, sum and maximum are exact, and nothing ever wraps.
///
/// A plain value of 150 bytes and 128 for each octave that has been hit. Adding takes memory only
/// for the first one in an octave. One that has been moved from may be assigned to or destroyed.
class BRELO_EXPORT Histogram {
 public:
  /// Counts one; what is negative counts as zero. False, and nothing is counted, where memory
  /// fails.
  bool add(std::chrono::nanoseconds length) noexcept;
  /// Counts so many of the same length.
  bool add(std::chrono::nanoseconds length, std::uint64_t count) noexcept;
  /// Adds what the other has counted, as if each had been counted here. After `std::bad_alloc` some
  /// of it may be missing.
  void merge(Histogram const& other);
  /// Forgets everything, and keeps the memory.
  void clear() noexcept;

  std::uint64_t count() const { return count_; }         ///< lengths in all
  std::chrono::nanoseconds max() const { return max_; }  ///< zero if empty
  double sum() const;                                    ///< in nanoseconds
  double mean() const;                                   ///< in nanoseconds, zero if empty
  /// The length that this share of all does not exceed, from 0 to 1: 0.99 for the 99th percentile.
  /// Zero if empty.
  std::chrono::nanoseconds percentile(double share) const;

  /// How many were at least `lower` and less than `upper`.
  struct Bucket {
    std::chrono::nanoseconds lower;  ///< the least that belongs to it
    std::chrono::nanoseconds upper;  ///< of the longest ones the largest length that there is
    std::uint64_t count;             ///< never zero
  };
  /// Those that are not empty, the shortest first.
  std::vector<Bucket> buckets() const;

 private:
  static constexpr unsigned stepBits = 5;
  static constexpr unsigned steps = 1U << stepBits;
  static constexpr unsigned octaves = 65 - stepBits;  // the last one, of negative ones, stays empty

  /// The first octave has the lengths below `steps`, each later one twice as wide steps.
  struct Position {
    unsigned octave;
    unsigned step;
  };
  static Position positionOf(std::uint64_t nanoseconds) {
    auto const highest = 63 - static_cast<unsigned>(__builtin_clzll(nanoseconds | (steps - 1)));
    unsigned const octave = highest - (stepBits - 1);
    unsigned const shift = octave - (octave != 0 ? 1 : 0);
    return {octave, static_cast<unsigned>(nanoseconds >> shift) & (steps - 1)};
  }
  static std::uint64_t lowerOf(Position at);
  static std::uint64_t widthOf(Position at);

  using Steps = std::array<std::uint32_t, steps>;
  /// What a bucket has beyond its 32 bits.
  struct Carry {
    std::uint8_t octave;
    std::uint8_t step;
    std::uint32_t count;
  };

  Steps* makeOctave(unsigned octave) noexcept;
  bool addCarry(Position at, std::uint64_t count) noexcept;
  std::uint64_t carryOf(Position at) const;
  template <class Visit>
  void forEachBucket(Visit visit) const;

  // What an addition touches comes first, and is close together.
  std::vector<Steps> steps_;
  std::uint64_t count_ = 0;
  std::uint64_t sum_ = 0;
  std::uint64_t sumCarry_ = 0;
  std::chrono::nanoseconds max_{};
  std::array<std::uint8_t, octaves> places_{};  // in `steps_`, counted from 1; 0 for none
  std::vector<Carry> carries_;
};

inline bool Histogram::add(std::chrono::nanoseconds length) noexcept {
  auto const nanoseconds = static_cast<std::uint64_t>(length.count());
  Position const at = positionOf(nanoseconds);
  std::uint8_t const place = places_[at.octave];
  if (__builtin_expect(place == 0, 0)) return add(length, 1);
  std::uint32_t& bucket = steps_[place - 1U][at.step];
  if (__builtin_expect(++bucket == 0, 0)) {
    --bucket;
    return add(length, 1);
  }
  ++count_;
  sum_ += nanoseconds;
  sumCarry_ += sum_ < nanoseconds ? 1 : 0;
  if (length > max_) max_ = length;
  return true;
}

}  // namespace BreloObserve
