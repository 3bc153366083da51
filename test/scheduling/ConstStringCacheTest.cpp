#include "Brelo/ConstStringCache.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

namespace {

using Brelo::ConstStringCache;
using Brelo::ConstStringRef;

TEST(ConstStringCache, HoldsExactlyTheStringsInUse) {
  ConstStringCache cache;
  ConstStringRef a = cache.intern(std::string("a\0b", 3));
  EXPECT_NE(a, cache.intern("a"));
  EXPECT_FALSE(cache.intern("").isNull());
  ConstStringRef copy = a;
  ConstStringRef moved = std::move(copy);
  a = ConstStringRef();
  EXPECT_EQ(a.string(), "");
  EXPECT_EQ(moved, cache.intern(std::string("a\0b", 3)));
  EXPECT_EQ(cache.size(), 1u);
  moved = ConstStringRef();
  EXPECT_EQ(cache.size(), 0u);
}

TEST(ConstStringCache, StopsAtBrokenCounts) {
  std::optional<ConstStringCache> cache(std::in_place);
  ConstStringRef::Elem const stranger(&*cache, "stranger");
  EXPECT_DEATH(stranger.refCountDec(), "ConstStringRef::refCountDec\\(\\) ");
  stranger.refCountInc();
  EXPECT_DEATH(stranger.refCountDec(), "ConstStringCache::eraseElem\\(\\) ");
  ConstStringRef const left = cache->intern("left");
  EXPECT_DEATH(cache.reset(), "Destroying ConstStringCache with open references");
}

}  // namespace
