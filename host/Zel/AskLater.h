#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

namespace Zel {

/// Descriptors that are watched by edges and may have been left something to read: which of them
/// are to be asked after in which of the next looks. As a rule one has been reported by then, since
/// its peer has sent the next request, and need not be asked.
class AskLater {
 public:
  AskLater() { numbers_.fill(-1); }

  /// The place for a number that may be asked after so many looks from now, or somewhat earlier, if
  /// there is one. It holds -1.
  int* placeWithin(unsigned looks) {
    for (looks = std::min(looks, most); looks >= fewest; --looks) {
      int& place = numbers_[(look_ + looks) % most];
      if (place == -1) return &place;
    }
    return nullptr;
  }
  /// The next look begins: the place of the number to be asked after now, or of -1.
  int& next() { return numbers_[++look_ % most]; }
  /// All places.
  /// @{
  int* begin() { return numbers_.data(); }
  int* end() { return numbers_.data() + most; }
  /// @}

  /// So many times one is not watched by edges that turned out not to be of the kind: as many as
  /// make up for finding out.
  static constexpr std::uint8_t barredTimes = 16;

 private:
  static constexpr unsigned most = 64;
  // Of peers on the same machine half have to be asked after with four, a hundredth with eight.
  static constexpr unsigned fewest = 8;

  std::uint64_t look_ = 0;
  std::array<int, most> numbers_;
};

}  // namespace Zel
