#pragma once

#include <boost/intrusive/list.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <vector>

namespace Cached {

/// A key, its value and a line end, in one block of memory.
struct Item : boost::intrusive::list_base_hook<> {
  static constexpr std::size_t keyMax = 250;
  static constexpr std::size_t valueMax = 1 << 20;

  char const* bytes() const { return reinterpret_cast<char const*>(this + 1); }
  std::string_view key() const { return {bytes(), keySize}; }
  std::string_view value() const { return {bytes() + keySize, valueSize}; }
  std::string_view valueAndLineEnd() const { return {bytes() + keySize, valueSize + 2}; }

  Item* nextInBucket = nullptr;
  double expires = 0;
  std::uint64_t version = 0;
  std::uint32_t hash = 0;
  std::uint32_t flags = 0;
  std::uint32_t valueSize = 0;
  std::uint8_t keySize = 0;
};

/// Items by key within a limit of memory: at the limit, those go that were not used for longest.
///
/// It is told the time. Its table is as large as the limit needs from the start, so no operation is
/// a long one. What has expired or was flushed is not found; its memory is had back when somebody
/// looks for it, when the sweep comes by, or when memory is short.
class Cache {
 public:
  /// For `limit` bytes of items, as the allocator counts; the table takes a 32nd of it besides.
  explicit Cache(std::size_t limit);
  ~Cache() { order_.clear_and_dispose(&std::free); }

  void timeIs(double now);
  double time() const { return now_; }
  /// Null without one; now the one used last.
  Item* find(std::string_view key);
  /// In place of what is there; `more`, the end of the value, may be a part of it. False if it does
  /// not fit: nothing is there then.
  bool store(std::string_view key, std::uint32_t flags, double expires, std::string_view value,
             std::string_view more = {});
  bool erase(std::string_view key);
  /// All goes then that is there by then.
  void flushAt(double time) {
    flushAt_ = time;
    timeIs(now_);
  }
  void sweep(std::size_t buckets);

  std::size_t const limit;
  std::size_t bytes = 0;
  std::uint64_t items = 0;
  std::uint64_t stored = 0;   ///< ever
  std::uint64_t evicted = 0;  ///< of those that could be found

 private:
  bool dead(Item const& item) const { return item.expires <= now_ || item.version <= flushed_; }
  std::uint32_t hashOf(std::string_view key) const;
  Item** place(std::string_view key, std::uint32_t hash);
  Item** remove(Item** at);

  std::vector<Item*> table_;
  std::uint64_t const secret_;          // so that nobody can choose keys of one bucket
  boost::intrusive::list<Item> order_;  // the one used last is last
  std::uint64_t version_ = 0;
  std::uint64_t flushed_ = 0;  // up to this version
  double now_ = 0;
  double flushAt_ = std::numeric_limits<double>::infinity();
  std::size_t swept_ = 0;
};

}  // namespace Cached
