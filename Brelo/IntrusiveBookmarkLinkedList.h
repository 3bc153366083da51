#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>

#include "Brelo/Export.h"
#include "Brelo/IntrusiveLinkedListBase.h"

/// @file
/// An intrusive list in which a walk can leave a bookmark and come back later: the bookmark lies
/// among the elements and stays valid while they come and go. Every other walk skips it.

namespace Brelo {

/// The place of an element in a `BookmarkList`, as a member of the element.
template <class Element>
struct BookmarkListLinkNode {
  static constexpr std::uint32_t element = 0;   ///< the kind of an element's node
  static constexpr std::uint32_t bookmark = 1;  ///< the kind of a bookmark's node

  bool isLinked() const { return link.is_linked(); }  ///< is in a list

  ListHook link;                      ///< for the list alone
  std::uint32_t linkKind_ = element;  ///< does not change once linked
};

namespace Impl {

/// What `BookmarkList` does with a bookmark that is linked already: ends the process.
[[noreturn]] BRELO_EXPORT void bookmarkLinkedAssertFail(unsigned line, char const* func);

}  // namespace Impl

/// A `ListImpl` that can be walked, and holds bookmarks.
template <class ElementType, class LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          class ElementPtrType>
class BookmarkList : public ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType> {
  using Base = ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType>;

  /// Stands on an element or at the end, never on a bookmark. Valid as long as its node is.
  template <class Element, class ListType, class NodeIterator>
  class Walk {
   public:
    /// What the standard library asks of an iterator.
    /// @{
    using iterator_category = std::forward_iterator_tag;
    using value_type = ElementType;
    using difference_type = std::ptrdiff_t;
    using pointer = Element*;
    using reference = Element&;
    /// @}

    /// On `node`, or on the next element behind it if it is a bookmark. The node is linked.
    Walk(ListType& list, LinkNodeType& node) : Walk(list, list.nodes_.iterator_to(node)) {}
    /// A walk that may not change the elements, from one that may.
    template <class OtherElement, class OtherList, class OtherIterator,
              class = std::enable_if_t<std::is_convertible_v<OtherElement*, Element*>>>
    Walk(Walk<OtherElement, OtherList, OtherIterator> const& other)
        : list_(other.list_), at_(other.at_) {}

    /// The element, and the step to the next one; not at the end.
    /// @{
    Element& operator*() const { return Base::element(*at_); }
    Element* operator->() const { return &**this; }
    Walk& operator++() {
      ++at_;
      skipBookmarks();
      return *this;
    }
    /// @}
    /// Whether two iterators of one list stand at the same place.
    /// @{
    friend bool operator==(Walk const& a, Walk const& b) { return a.at_ == b.at_; }
    friend bool operator!=(Walk const& a, Walk const& b) { return a.at_ != b.at_; }
    /// @}

   private:
    friend class BookmarkList;
    template <class, class, class>
    friend class Walk;
    Walk(ListType& list, NodeIterator at) : list_(&list), at_(at) { skipBookmarks(); }
    void skipBookmarks() {
      while (at_ != list_->nodes_.end() && list_->isBookmark(*at_))
        ++at_;
    }

    ListType* list_;
    NodeIterator at_;
  };

 public:
  /// Forward iterators.
  /// @{
  using Iterator = Walk<ElementType, BookmarkList, typename Base::Nodes::iterator>;
  using ConstIterator =
      Walk<ElementType const, BookmarkList const, typename Base::Nodes::const_iterator>;
  /// @}

  /// A place in a list, kept while elements come and go. Unlinks itself when destroyed.
  class Bookmark {
   public:
    /// Unlinked.
    Bookmark() { node_.linkKind_ = LinkNodeType::bookmark; }

    bool isLinked() const { return node_.isLinked(); }  ///< is in a list
    void unlink() { node_.link.unlink(); }              ///< harmless if it is not
    /// Links it before the iterator's place; it must be unlinked.
    void insertBefore(ConstIterator const& place) {
      if (node_.isLinked()) Impl::bookmarkLinkedAssertFail(__LINE__, __func__);
      using Nodes = typename Base::Nodes;
      Nodes::node_algorithms::link_before(place.at_.pointed_node(),
                                          Nodes::value_traits::to_node_ptr(node_));
    }
    LinkNodeType& node() { return node_; }  ///< for an iterator, when linked

   private:
    LinkNodeType node_;
  };

  bool isBookmark(LinkNodeType const& node) const override {
    return node.linkKind_ == LinkNodeType::bookmark;
  }

  /// The elements from the front; bookmarks are skipped.
  /// @{
  Iterator begin() { return Iterator(*this, this->nodes_.begin()); }
  Iterator end() { return Iterator(*this, this->nodes_.end()); }
  ConstIterator begin() const { return ConstIterator(*this, this->nodes_.begin()); }
  ConstIterator end() const { return ConstIterator(*this, this->nodes_.end()); }
  /// @}
};

}  // namespace Brelo
