#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <typeinfo>
#include <utility>

#include "Brelo/Export.h"
#include "Zel/AllocTrack.h"

/// Allocation counts by type, kept in the host's records so that its tools can list them.
/// Counts are of objects, not bytes. Any thread may count; where the host says that there are
/// no threads, the numbers change without the record's lock.

namespace Brelo::MemTrack {

/// The host's record of one type, which lives for ever.
using Tracker = Zel::AllocTrackTypeInfo*;

/// Adds `count` to the record's total and to what is live, and raises the peak.
BRELO_EXPORT void alloc(Tracker tracker, unsigned long count) noexcept;
/// Takes `count` off what is live.
BRELO_EXPORT void dealloc(Tracker tracker, unsigned long count) noexcept;
/// The same with the slot's record, made on first use, and always under the record's lock. `size`
/// is that of one object, in bytes.
BRELO_EXPORT void alloc(Tracker* slot, std::type_info const& type, unsigned long size,
                        unsigned long count);
/// Makes the slot's record; one of an array type unless `count` is 1.
BRELO_EXPORT void allocTrackerIs(Tracker* slot, std::type_info const& type, unsigned long size,
                                 unsigned long count);

}  // namespace Brelo::MemTrack

namespace Brelo {

/// A standard allocator that counts one for each `allocate`, in a tracker for each T. It holds no
/// state: all of them are equal. Exported, so that the tracker is one for all libraries of the
/// process.
template <class T>
class BRELO_EXPORT Allocator {
 public:
  using value_type = T;  ///< for std::allocator_traits

  Allocator() = default;
  /// Converts to another T and takes nothing along.
  template <class Other>
  Allocator(Allocator<Other> const&) noexcept {}

  /// As `std::allocator`, with its exceptions; counted only if it succeeds.
  T* allocate(std::size_t count) {
    T* const memory = std::allocator<T>().allocate(count);
    MemTrack::alloc(&tracker_, typeid(T), sizeof(T), 1);
    return memory;
  }
  /// Null does nothing.
  void deallocate(T* memory, std::size_t count) noexcept {
    if (memory == nullptr) return;
    MemTrack::dealloc(tracker_, 1);
    std::allocator<T>().deallocate(memory, count);
  }

  static inline MemTrack::Tracker tracker_ = nullptr;  ///< null before the first `allocate`
};

/// Always true.
template <class T, class Other>
bool operator==(Allocator<T> const&, Allocator<Other> const&) noexcept {
  return true;
}
/// Always false.
template <class T, class Other>
bool operator!=(Allocator<T> const&, Allocator<Other> const&) noexcept {
  return false;
}

/// A counted object in one allocation with its reference count.
template <class T, class... Args>
std::shared_ptr<T> makeTracked(Args&&... args) {
  return std::allocate_shared<T>(Allocator<int>(), std::forward<Args>(args)...);
}

}  // namespace Brelo
