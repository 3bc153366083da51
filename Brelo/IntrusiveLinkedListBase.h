#pragma once

#include <boost/intrusive/list.hpp>
#include <boost/intrusive/parent_from_member.hpp>

#include "Brelo/Export.h"

/// @file
/// Intrusive lists whose nodes unlink themselves when they are destroyed.
///
/// A list owns nothing and has no size: linking, unlinking and splicing are pointer writes, and
/// an element leaves without the list being at hand. A node is in one list at most.

namespace Brelo {

/// The links of a node; destroying it unlinks it.
using ListHook =
    boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

/// The place of an element in a `List`, as a member of the element.
template <class Element>
struct ListLinkNode {
  bool isLinked() const { return link.is_linked(); }  ///< is in a list

  ListHook link;  ///< for the list alone
};

namespace Impl {

/// What `ListImpl` does with an element that is linked already: ends the process.
[[noreturn]] BRELO_EXPORT void linkedAssertFail(unsigned line, char const* func);

}  // namespace Impl

/// The list behind `List` and `BookmarkList`. `ptrToLinkNode` is the element's member that holds
/// its node. Elements must be unlinked before they are linked: anything else is an assertion.
template <class ElementType, class LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          class ElementPtrType>
class ListImpl {
 public:
  ListImpl() = default;
  ListImpl(ListImpl const&) = delete;
  ListImpl& operator=(ListImpl const&) = delete;

  /// Whether the node is a place that walks skip instead of an element. A plain list has none.
  virtual bool isBookmark(LinkNodeType const&) const { return false; }
  /// Unlinks every node that is left.
  virtual ~ListImpl() { nodes_.clear(); }

  bool empty() const { return nodes_.empty(); }  ///< bookmarks count
  /// The first element; the list must have one, and no bookmark before it.
  ElementType& front() { return element(nodes_.front()); }
  ElementType const& front() const { return element(nodes_.front()); }  ///< the same

  /// Link an element at either end; unlink it from whichever list it is in, or do nothing.
  /// @{
  void pushFront(ElementType& element) {
    beingLinked(element);
    nodes_.push_front(element.*ptrToLinkNode);
  }
  void pushBack(ElementType& element) {
    beingLinked(element);
    nodes_.push_back(element.*ptrToLinkNode);
  }
  static void unlink(ElementType& element) { (element.*ptrToLinkNode).link.unlink(); }
  /// @}

  /// Takes over all of `other`, in order, behind or before what is here.
  /// @{
  void spliceBack(ListImpl& other) { nodes_.splice(nodes_.end(), other.nodes_); }
  void spliceFront(ListImpl& other) { nodes_.splice(nodes_.begin(), other.nodes_); }
  /// @}

 protected:
  /// The nodes, bookmarks among them.
  using Nodes = boost::intrusive::list<
      LinkNodeType, boost::intrusive::member_hook<LinkNodeType, ListHook, &LinkNodeType::link>,
      boost::intrusive::constant_time_size<false>>;

  /// The element that holds `node`, which is no bookmark.
  static ElementType& element(LinkNodeType& node) {
    return *boost::intrusive::get_parent_from_member(&node, ptrToLinkNode);
  }
  static ElementType const& element(LinkNodeType const& node) {  ///< the same
    return *boost::intrusive::get_parent_from_member(&node, ptrToLinkNode);
  }
  /// Asserts that the element is not linked.
  static void beingLinked(ElementType& element) {
    if ((element.*ptrToLinkNode).isLinked()) Impl::linkedAssertFail(__LINE__, __func__);
  }

  Nodes nodes_;  ///< not owned
};

/// A list without bookmarks.
template <class ElementType, class LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          class ElementPtrType>
class List : public ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType> {};

}  // namespace Brelo
