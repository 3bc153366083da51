#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <type_traits>

#include "Brelo/IntrusiveBookmarkLinkedList.h"

namespace {

struct Item {
  char name;
  Brelo::BookmarkListLinkNode<Item> link = {};
};
using List = Brelo::BookmarkList<Item, Brelo::BookmarkListLinkNode<Item>, &Item::link, void>;

TEST(IntrusiveList, KeepsOrderAndBookmarksWhileElementsComeAndGo) {
  Item a{'a'}, c{'c'};
  std::optional<Item> b(Item{'b'});
  std::optional<List> list(std::in_place);
  List other;
  List::Bookmark place;
  auto const walkedFrom = [&list](List::ConstIterator at) {
    std::string names;
    for (; at != list->end(); ++at)
      names += at->name;
    return names;
  };
  static_assert(!std::is_convertible_v<List::ConstIterator, List::Iterator>);
  place.insertBefore(list->begin());
  EXPECT_EQ(walkedFrom(list->begin()), "");
  list->pushBack(*b);
  list->pushFront(a);
  other.pushBack(c);
  list->spliceBack(other);
  EXPECT_EQ(walkedFrom(list->begin()), "abc");
  EXPECT_EQ(walkedFrom({*list, place.node()}), "bc");
  b.reset();
  EXPECT_EQ(walkedFrom({*list, place.node()}), "c");
  EXPECT_DEATH(list->pushBack(a), "IntrusiveLinkedListBase.*isLinked\\(\\)' failed");
  EXPECT_DEATH(place.insertBefore(list->end()), "Assertion `!link.isLinked\\(\\)' failed");
  list.reset();
  EXPECT_FALSE(a.link.isLinked() || place.isLinked());
}

}  // namespace
