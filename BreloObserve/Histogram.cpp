#include "BreloObserve/Histogram.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

namespace BreloObserve {

using std::chrono::nanoseconds;

std::uint64_t Histogram::lowerOf(Position at) {
  return at.octave == 0 ? at.step : std::uint64_t{steps + at.step} << (at.octave - 1);
}

std::uint64_t Histogram::widthOf(Position at) {
  return at.octave == 0 ? 1 : std::uint64_t{1} << (at.octave - 1);
}

bool Histogram::add(nanoseconds length, std::uint64_t count) noexcept {
  __extension__ using Wide = unsigned __int128;
  length = std::max(length, nanoseconds(0));
  auto const number = static_cast<std::uint64_t>(length.count());
  Position const at = positionOf(number);
  std::uint8_t const place = places_[at.octave];
  Steps* const found = place != 0 ? &steps_[place - 1U] : makeOctave(at.octave);
  if (found == nullptr) return false;
  std::uint32_t& bucket = (*found)[at.step];
  std::uint64_t const filled = bucket + count;
  if (filled > UINT32_MAX && !addCarry(at, filled >> 32)) return false;
  bucket = static_cast<std::uint32_t>(filled);
  count_ += count;
  Wide const sum = (Wide{sumCarry_} << 64) + sum_ + Wide{number} * count;
  sum_ = static_cast<std::uint64_t>(sum);
  sumCarry_ = static_cast<std::uint64_t>(sum >> 64);
  max_ = std::max(max_, length);
  return true;
}

Histogram::Steps* Histogram::makeOctave(unsigned octave) noexcept {
  try {
    steps_.reserve(steps_.size() + 1);  // no more than is needed
    steps_.push_back({});
  } catch (std::bad_alloc const&) {
    return nullptr;
  }
  places_[octave] = static_cast<std::uint8_t>(steps_.size());
  return &steps_.back();
}

bool Histogram::addCarry(Position at, std::uint64_t count) noexcept {
  auto const found = std::find_if(carries_.begin(), carries_.end(), [&](Carry const& carry) {
    return carry.octave == at.octave && carry.step == at.step;
  });
  if (found != carries_.end()) {
    found->count += static_cast<std::uint32_t>(count);
    return true;
  }
  try {
    carries_.push_back({static_cast<std::uint8_t>(at.octave), static_cast<std::uint8_t>(at.step),
                        static_cast<std::uint32_t>(count)});
  } catch (std::bad_alloc const&) {
    return false;
  }
  return true;
}

std::uint64_t Histogram::carryOf(Position at) const {
  for (Carry const& carry : carries_) {
    if (carry.octave == at.octave && carry.step == at.step) return std::uint64_t{carry.count} << 32;
  }
  return 0;
}

/// Calls `visit(position, count)` for those that are not empty, in their order, for as long as it
/// returns true.
template <class Visit>
void Histogram::forEachBucket(Visit visit) const {
  for (unsigned octave = 0; octave < octaves; ++octave) {
    if (places_[octave] == 0) continue;
    Steps const& counts = steps_[places_[octave] - 1U];
    for (unsigned step = 0; step < steps; ++step) {
      Position const at{octave, step};
      std::uint64_t const count = counts[step] + (carries_.empty() ? 0 : carryOf(at));
      if (count != 0 && !visit(at, count)) return;
    }
  }
}

void Histogram::merge(Histogram const& other) {
  std::uint64_t const sum = sum_ + other.sum_;
  std::uint64_t const sumCarry = sumCarry_ + other.sumCarry_ + (sum < sum_ ? 1 : 0);
  other.forEachBucket([&](Position at, std::uint64_t count) {
    if (!add(nanoseconds(lowerOf(at)), count)) throw std::bad_alloc();
    return true;
  });
  sum_ = sum;
  sumCarry_ = sumCarry;
  max_ = std::max(max_, other.max_);
}

void Histogram::clear() noexcept {
  std::fill(steps_.begin(), steps_.end(), Steps{});
  carries_.clear();
  count_ = sum_ = sumCarry_ = 0;
  max_ = {};
}

double Histogram::sum() const {
  return std::ldexp(static_cast<double>(sumCarry_), 64) + static_cast<double>(sum_);
}

double Histogram::mean() const {
  return count_ != 0 ? sum() / static_cast<double>(count_) : 0;
}

nanoseconds Histogram::percentile(double share) const {
  double const rank = std::ceil(share * static_cast<double>(count_));
  if (rank >= static_cast<double>(count_)) return max_;
  std::uint64_t seen = 0;
  nanoseconds found = max_;
  forEachBucket([&](Position at, std::uint64_t count) {
    seen += count;
    if (static_cast<double>(seen) < rank) return true;
    found = nanoseconds(lowerOf(at) + widthOf(at) / 2);
    return false;
  });
  return std::min(found, max_);
}

std::vector<Histogram::Bucket> Histogram::buckets() const {
  std::vector<Bucket> filled;
  forEachBucket([&](Position at, std::uint64_t count) {
    std::uint64_t const lower = lowerOf(at);
    std::uint64_t const last = lower + (widthOf(at) - 1);
    std::uint64_t const largest = std::numeric_limits<std::int64_t>::max();
    filled.push_back({nanoseconds(lower), nanoseconds(last < largest ? last + 1 : largest), count});
    return true;
  });
  return filled;
}

}  // namespace BreloObserve
