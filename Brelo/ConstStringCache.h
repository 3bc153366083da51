#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <utility>

#include "Brelo/Export.h"

namespace Brelo {

class ConstStringCache;

/// A counted handle on one interned string; null is a valid value and reads as empty.
///
/// Copying and dropping a handle change a plain counter and touch no string. The counter is
/// neither atomic nor locked: a handle belongs to the thread of its cache, and the cache must
/// outlive it.
class BRELO_EXPORT ConstStringRef {
 public:
  class Elem;

  /// Null.
  ConstStringRef() = default;
  /// A copy counts once more; a move takes over and leaves null behind.
  /// @{
  ConstStringRef(ConstStringRef const& other) noexcept;
  ConstStringRef(ConstStringRef&& other) noexcept : elem_(std::exchange(other.elem_, nullptr)) {}
  ConstStringRef& operator=(ConstStringRef const& other) { return *this = ConstStringRef(other); }
  ConstStringRef& operator=(ConstStringRef&& other) noexcept {
    ConstStringRef taken(std::move(other));
    std::swap(elem_, taken.elem_);
    return *this;
  }
  /// @}
  /// With the last handle the string leaves its cache.
  ~ConstStringRef();

  std::string const& string() const;                ///< empty for null; valid while a handle is
  bool isNull() const { return elem_ == nullptr; }  ///< not so for an interned empty string

  /// Whether both are the same string of the same cache, or both are null.
  /// @{
  friend bool operator==(ConstStringRef const& a, ConstStringRef const& b) {
    return a.elem_ == b.elem_;
  }
  friend bool operator!=(ConstStringRef const& a, ConstStringRef const& b) {
    return a.elem_ != b.elem_;
  }
  /// @}

 private:
  friend class ConstStringCache;
  explicit ConstStringRef(Elem const& elem);

  Elem const* elem_ = nullptr;
};

/// One interned string with its count, at a fixed address for as long as a handle refers to it.
class ConstStringRef::Elem {
 public:
  /// For the cache. No reference yet.
  Elem(ConstStringCache* cache, std::string string);

  std::string const& string() const { return string_; }  ///< never changes
  std::size_t hash() const { return hash_; }             ///< of the string's characters
  std::uint64_t refCount() const { return refCount_; }   ///< handles that refer to it

  void refCountInc() const { ++refCount_; }  ///< adds a reference
  /// Drops one reference; with the last one the string leaves its cache. Without one it is an
  /// assertion.
  void refCountDec() const {
    if (refCount_ > 1) {
      --refCount_;
    } else {
      refCountLast();
    }
  }

 private:
  void refCountLast() const;

  ConstStringCache* cache_;
  std::string const string_;
  std::size_t const hash_;  // of the string's bytes, computed once
  mutable std::uint64_t refCount_ = 0;
};

/// The strings of one scheduler tree, each once, for as long as something refers to it.
///
/// Belongs to the tree's thread. Destroying it with handles left is an assertion.
class BRELO_EXPORT ConstStringCache {
 public:
  ConstStringCache() = default;
  ConstStringCache(ConstStringCache const&) = delete;
  ConstStringCache& operator=(ConstStringCache const&) = delete;
  ~ConstStringCache();

  /// A handle on the one string of this content, which is made if it is not there.
  ConstStringRef intern(std::string string);
  std::size_t size() const { return elems_.size(); }  ///< different strings

 private:
  friend class ConstStringRef::Elem;
  struct ElemHasher {
    std::size_t operator()(ConstStringRef::Elem const& elem) const noexcept { return elem.hash(); }
  };
  struct ElemEqual {
    bool operator()(ConstStringRef::Elem const& a, ConstStringRef::Elem const& b) const noexcept {
      return a.string() == b.string();
    }
  };
  void eraseElem(ConstStringRef::Elem const& elem);

  std::unordered_set<ConstStringRef::Elem, ElemHasher, ElemEqual> elems_;
};

inline ConstStringRef::ConstStringRef(Elem const& elem) : elem_(&elem) {
  elem.refCountInc();
}

inline ConstStringRef::ConstStringRef(ConstStringRef const& other) noexcept : elem_(other.elem_) {
  if (elem_ != nullptr) elem_->refCountInc();
}

inline ConstStringRef::~ConstStringRef() {
  if (elem_ != nullptr) elem_->refCountDec();
}

}  // namespace Brelo
