#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "Memory.h"

namespace Wordd {

/// Counts the words of a text that comes in pieces. A word is a run of ASCII letters of any
/// length, and upper case is lower case; every other byte separates.
///
/// Different words may take `memoryMax` bytes, which is some 80,000 words, and what all texts may
/// take together. A text that needs more, or for which memory runs out, is not counted any
/// further, since whatever was left out could have been among the first ten.
class WordCount {
 public:
  static constexpr std::size_t memoryMax = 8 << 20;

  explicit WordCount(std::shared_ptr<MemoryBudget> ofAll) : share_(std::move(ofAll)) {}

  /// Takes the next piece; a word may go on in the piece after it.
  void add(std::string_view text);
  /// Ends the text. The ten most frequent words, each as a line "count word", the most frequent
  /// first and equals in the order of their bytes; or one line that begins with "error: ".
  std::string answer();

 private:
  // A tree, not a hash table: it never has to move all its entries at once, and no choice of
  // words makes it slow.
  using Counts = std::map<std::string, std::uint64_t>;
  static constexpr std::size_t entrySize = sizeof(Counts::value_type) + 4 * sizeof(void*);

  void count(std::string_view text);
  void endWord();
  void giveUp();

  Counts counts_;
  std::string word_;        // the one that is being read
  std::size_t memory_ = 0;  // of the entries of `counts_`
  MemoryShare share_;
  bool tooLarge_ = false;
};

}  // namespace Wordd
