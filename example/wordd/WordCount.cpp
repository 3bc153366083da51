#include "WordCount.h"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

namespace Wordd {

void WordCount::add(std::string_view text) {
  if (tooLarge_) return;
  try {
    count(text);
  } catch (std::bad_alloc const&) {
    return giveUp();
  }
  std::size_t const memory = memory_ + word_.size();
  if (memory > memoryMax || !share_.sizeIs(memory)) giveUp();
}

void WordCount::count(std::string_view text) {
  for (char const c : text) {
    // The bit that tells the cases apart; with it set, nothing but a letter falls into a to z.
    auto const lower = static_cast<unsigned char>(c | 0x20);
    if (lower >= 'a' && lower <= 'z') {
      word_.push_back(static_cast<char>(lower));
    } else if (!word_.empty()) {
      endWord();
    }
  }
}

void WordCount::endWord() {
  auto const [entry, isNew] = counts_.try_emplace(word_, 0);
  ++entry->second;
  if (isNew) memory_ += entrySize + word_.size();
  word_.clear();
}

void WordCount::giveUp() {
  tooLarge_ = true;
  counts_.clear();
  word_ = {};
  share_.sizeIs(0);
}

std::string WordCount::answer() {
  if (tooLarge_) return "error: the text has too many different words\n";
  if (!word_.empty()) endWord();

  std::vector<std::pair<std::string, std::uint64_t>> first(
      std::min<std::size_t>(10, counts_.size()));
  std::partial_sort_copy(counts_.begin(), counts_.end(), first.begin(), first.end(),
                         [](auto const& a, auto const& b) {
                           return a.second != b.second ? a.second > b.second : a.first < b.first;
                         });
  std::string lines;
  for (auto const& [word, count] : first)
    lines += std::to_string(count) + " " + word + "\n";
  return lines;
}

}  // namespace Wordd
