#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <utility>

#include "Brelo/Export.h"
#include "Brelo/IntrusiveLinkedListBase.h"

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
  ConstStringRef(ConstStringRef&& other) noexcept : bits_(std::exchange(other.bits_, 0)) {}
  ConstStringRef& operator=(ConstStringRef const& other) { return *this = ConstStringRef(other); }
  ConstStringRef& operator=(ConstStringRef&& other) noexcept {
    ConstStringRef old;  // of nothing as a rule, or of what does not count
    old.bits_ = std::exchange(bits_, std::exchange(other.bits_, 0));
    return *this;
  }
  /// @}
  /// With the last handle the string leaves its cache.
  ~ConstStringRef();

  std::string const& string() const;          ///< empty for null; valid while a handle is
  bool isNull() const { return bits_ == 0; }  ///< not so for an interned empty string
  /// A number that is the same for equal handles only, to be hashed; 0 for null.
  std::uintptr_t identity() const { return reinterpret_cast<std::uintptr_t>(elem()); }
  /// A handle that does not count, for who sees to it that a counted one is there for as long. It
  /// does not touch the string; a copy of it counts.
  ConstStringRef uncounted() const {
    ConstStringRef ref;
    if (!isNull()) ref.bits_ = bits_ | uncountedBit;
    return ref;
  }

  /// Whether both are the same string of the same cache, or both are null.
  /// @{
  friend bool operator==(ConstStringRef const& a, ConstStringRef const& b) {
    return a.elem() == b.elem();
  }
  friend bool operator!=(ConstStringRef const& a, ConstStringRef const& b) { return !(a == b); }
  /// @}

 private:
  friend class ConstStringCache;
  friend class ConstStringKeeper;
  // In the address of an element, which is aligned.
  static constexpr std::uintptr_t uncountedBit = 1;

  explicit ConstStringRef(Elem const& elem);
  Elem const* elem() const { return reinterpret_cast<Elem const*>(bits_ & ~uncountedBit); }

  std::uintptr_t bits_ = 0;
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
  friend class ConstStringKeeper;
  void refCountLast() const;

  ConstStringCache* cache_;
  std::string const string_;
  std::size_t const hash_;  // of the string's bytes, computed once
  mutable std::uint64_t refCount_ = 0;
  mutable ListLinkNode<Elem> keptLink_;  // the next two for ConstStringKeeper
  mutable std::uint64_t keptSince_ = 0;
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

/// Keeps strings until a moment has passed, with no memory of its own: each string is kept once,
/// from the latest moment given.
class BRELO_EXPORT ConstStringKeeper {
 public:
  ConstStringKeeper() = default;
  ConstStringKeeper(ConstStringKeeper const&) = delete;
  ConstStringKeeper& operator=(ConstStringKeeper const&) = delete;
  ~ConstStringKeeper() { releaseAll(); }

  /// Takes a counted handle over; `moment` is not earlier than any before.
  void keep(ConstStringRef string, std::uint64_t moment) noexcept;
  bool empty() const { return kept_.empty(); }  ///< nothing is kept
  /// Lets go of what was given at `moment` or earlier.
  void release(std::uint64_t moment) noexcept;
  void releaseAll() noexcept;  ///< lets go of everything

 private:
  using Elem = ConstStringRef::Elem;
  using Kept = List<Elem, ListLinkNode<Elem>, &Elem::keptLink_, void>;

  void releaseFirst() noexcept;

  Kept kept_;  // by moment
};

inline ConstStringRef::ConstStringRef(Elem const& elem)
    : bits_(reinterpret_cast<std::uintptr_t>(&elem)) {
  elem.refCountInc();
}

inline ConstStringRef::ConstStringRef(ConstStringRef const& other) noexcept
    : bits_(other.bits_ & ~uncountedBit) {
  if (!isNull()) elem()->refCountInc();
}

// Each event of a run ends one; left to the compiler, what else is linked decides about the call.
[[gnu::always_inline]] inline ConstStringRef::~ConstStringRef() {
  if (!isNull() && (bits_ & uncountedBit) == 0) elem()->refCountDec();
}

}  // namespace Brelo
