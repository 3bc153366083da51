#include "Cache.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <random>
#include <utility>

namespace Cached {

namespace {

/// What the allocator takes.
std::size_t footprint(std::size_t keySize, std::size_t valueSize) {
  return (sizeof(Item) + keySize + valueSize + 2 + sizeof(std::size_t) + 15) / 16 * 16;
}

}  // namespace

Cache::Cache(std::size_t limit_)
    : limit(limit_),
      table_(limit / 256 + 1),
      secret_(std::independent_bits_engine<std::random_device, 64, std::uint64_t>()() | 1) {}

void Cache::timeIs(double now) {
  now_ = now;
  if (now < flushAt_) return;
  flushAt_ = std::numeric_limits<double>::infinity();
  flushed_ = version_;
}

Item* Cache::find(std::string_view key) {
  Item** const at = place(key, hashOf(key));
  if (*at != nullptr && dead(**at)) return remove(at), nullptr;
  if (*at != nullptr) order_.splice(order_.end(), order_, order_.iterator_to(**at));
  return *at;
}

bool Cache::store(std::string_view key, std::uint32_t flags, double expires, std::string_view value,
                  std::string_view more) {
  std::size_t const size = footprint(key.size(), value.size() + more.size());
  void* const memory = size <= limit ? std::malloc(size - sizeof(std::size_t)) : nullptr;
  if (memory == nullptr) return erase(key), false;
  auto* const item = new (memory) Item;
  item->expires = expires;
  item->version = ++version_;
  item->hash = hashOf(key);
  item->flags = flags;
  item->valueSize = static_cast<std::uint32_t>(value.size() + more.size());
  item->keySize = static_cast<std::uint8_t>(key.size());
  char* to = static_cast<char*>(memory) + sizeof(Item);
  for (std::string_view const part : {key, value, more, std::string_view("\r\n")})
    to = std::copy(part.begin(), part.end(), to);

  if (Item** const at = place(key, item->hash); *at != nullptr) remove(at);
  while (bytes + size > limit) {
    Item const& oldest = order_.front();
    if (!dead(oldest)) ++evicted;
    remove(place(oldest.key(), oldest.hash));
  }
  *place(key, item->hash) = item;
  order_.push_back(*item);
  bytes += size;
  ++items;
  ++stored;
  return true;
}

bool Cache::erase(std::string_view key) {
  Item const* const item = find(key);
  if (item != nullptr) remove(place(key, item->hash));
  return item != nullptr;
}

void Cache::sweep(std::size_t buckets) {
  for (; buckets > 0; --buckets) {
    Item** at = &table_[swept_++ % table_.size()];
    while (*at != nullptr)
      at = dead(**at) ? remove(at) : &(*at)->nextInBucket;
  }
}

std::uint32_t Cache::hashOf(std::string_view key) const {
  __extension__ using Product = unsigned __int128;
  std::uint64_t hash = secret_ ^ key.size();
  for (std::size_t at = 0; at < key.size(); at += sizeof hash) {
    std::uint64_t word = 0;
    std::memcpy(&word, key.data() + at, std::min(sizeof word, key.size() - at));
    Product const product = Product{hash ^ word} * secret_;
    hash = static_cast<std::uint64_t>(product ^ product >> 64);
  }
  return static_cast<std::uint32_t>(hash);
}

/// The link to the item, or the one at the end of its bucket.
Item** Cache::place(std::string_view key, std::uint32_t hash) {
  Item** at = &table_[hash * table_.size() >> 32];
  while (*at != nullptr && ((*at)->hash != hash || (*at)->key() != key))
    at = &(*at)->nextInBucket;
  return at;
}

/// Returns the same link, which is then that to the next one.
Item** Cache::remove(Item** at) {
  Item* const item = std::exchange(*at, (*at)->nextInBucket);
  order_.erase(order_.iterator_to(*item));
  bytes -= footprint(item->keySize, item->valueSize);
  --items;
  std::free(item);
  return at;
}

}  // namespace Cached
