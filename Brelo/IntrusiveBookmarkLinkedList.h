#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "Brelo/IntrusiveLinkedListBase.h"

/// An intrusive list in which a walk can leave a bookmark and come back later: the bookmark lies
/// among the elements and stays valid while they come and go. Every other walk skips it.

namespace Brelo {

template <class Element>
struct BookmarkListLinkNode {
  static constexpr std::uint32_t element = 0;
  static constexpr std::uint32_t bookmark = 1;

  bool isLinked() const { return link.is_linked(); }

  ListHook link;
  std::uint32_t linkKind_ = element;
};

namespace Impl {

[[noreturn]] void bookmarkLinkedAssertFail(unsigned line, char const* func);

}  // namespace Impl

template <class ElementType, class LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          class ElementPtrType>
class BookmarkList : public ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType> {
  using Base = ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType>;
  using NodeIterator = typename Base::Nodes::iterator;

 public:
  /// Stands on an element or at the end, never on a bookmark. Valid as long as its node is.
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = ElementType;
    using difference_type = std::ptrdiff_t;
    using pointer = ElementType*;
    using reference = ElementType&;

    /// On `node`, or on the next element behind it if it is a bookmark. The node is linked.
    Iterator(BookmarkList& list, LinkNodeType& node)
        : Iterator(list, list.nodes_.iterator_to(node)) {}

    ElementType& operator*() const { return Base::element(*at_); }
    ElementType* operator->() const { return &**this; }
    Iterator& operator++() {
      ++at_;
      skipBookmarks();
      return *this;
    }
    friend bool operator==(Iterator const& a, Iterator const& b) { return a.at_ == b.at_; }
    friend bool operator!=(Iterator const& a, Iterator const& b) { return a.at_ != b.at_; }

   private:
    friend class BookmarkList;
    Iterator(BookmarkList& list, NodeIterator at) : list_(&list), at_(at) { skipBookmarks(); }
    void skipBookmarks() {
      while (at_ != list_->nodes_.end() && list_->isBookmark(*at_))
        ++at_;
    }

    BookmarkList* list_;
    NodeIterator at_;
  };
  using ConstIterator = Iterator;

  /// A place in a list, kept while elements come and go. Unlinks itself when destroyed.
  class Bookmark {
   public:
    Bookmark() { node_.linkKind_ = LinkNodeType::bookmark; }

    bool isLinked() const { return node_.isLinked(); }
    void unlink() { node_.link.unlink(); }
    /// Links it before the iterator's place; it must be unlinked.
    void insertBefore(ConstIterator const& place) {
      if (node_.isLinked()) Impl::bookmarkLinkedAssertFail(__LINE__, __func__);
      place.list_->nodes_.insert(place.at_, node_);
    }
    LinkNodeType& node() { return node_; }

   private:
    LinkNodeType node_;
  };

  bool isBookmark(LinkNodeType const& node) const override {
    return node.linkKind_ == LinkNodeType::bookmark;
  }

  Iterator begin() { return Iterator(*this, this->nodes_.begin()); }
  Iterator end() { return Iterator(*this, this->nodes_.end()); }
};

}  // namespace Brelo
