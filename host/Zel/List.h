#pragma once

namespace Zel {

/// A place in a circular, intrusive list.
///
/// A node without an owner is a list's head, or a mark that a traversal has left in it.
/// A node takes itself out of whatever list it is in when it ends, so an object that is
/// destroyed needs to know nothing about the lists that it was in. Not thread-safe.
template <class T>
class ListNode {
 public:
  /// In no list.
  explicit ListNode(T* owner = nullptr) : owner_(owner) {}
  ~ListNode() { unlink(); }
  ListNode(ListNode const&) = delete;
  ListNode& operator=(ListNode const&) = delete;

  T* owner() const { return owner_; }               ///< null on a head and on a mark
  ListNode* next() const { return next_; }          ///< itself while in no list
  ListNode* previous() const { return previous_; }  ///< itself while in no list
  /// On a head: something is in the list.
  bool linked() const { return next_ != this; }

  /// Moves this node to the place before `place`: on a head, to the end of its list.
  void insertBefore(ListNode& place) {
    unlink();
    previous_ = place.previous_;
    next_ = &place;
    previous_->next_ = this;
    place.previous_ = this;
  }
  /// Out of its list, if it is in one. On a head: the others stay a list without one.
  void unlink() {
    previous_->next_ = next_;
    next_->previous_ = previous_;
    previous_ = next_ = this;
  }

 private:
  ListNode* previous_ = this;
  ListNode* next_ = this;
  T* owner_;
};

// The marks of a traversal take themselves out again, which the compiler does not see.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdangling-pointer"
#endif

/// Calls `visit` with each owner that is in the list now and still is when its turn comes, in
/// the list's order. `visit` may unlink and destroy any node, the current one and the head
/// included; it keeps alive what it goes on using. An exception ends the traversal.
template <class T, class Visit>
void forEach(ListNode<T>& head, Visit&& visit) {
  ListNode<T> here;
  ListNode<T> end;
  end.insertBefore(head);
  here.insertBefore(*head.next());
  while (here.next() != &end) {
    ListNode<T>& node = *here.next();
    here.insertBefore(*node.next());
    if (node.owner() != nullptr) visit(*node.owner());
  }
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

}  // namespace Zel
