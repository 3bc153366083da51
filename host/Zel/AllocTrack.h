#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <mutex>
#include <new>
#include <string>
#include <typeinfo>
#include <vector>

#include "Zel/Export.h"

namespace Zel {

/// Allocation numbers of one type, in objects, not bytes.
///
/// A record belongs to the slot (a pointer with static storage, initially null) through which
/// it was made, and lives for ever. The numbers are read and written under `lock`; the rest
/// never changes. All functions may be called from any thread and in a forked child. Types that
/// find no memory for their record are counted together, in one that no list knows.
class ZEL_EXPORT AllocTrackTypeInfo {
 public:
  /// A record of zeros that no list knows; clients go through a slot.
  AllocTrackTypeInfo(std::type_info const& type, unsigned long size, bool isArray);
  AllocTrackTypeInfo(AllocTrackTypeInfo const&) = delete;
  AllocTrackTypeInfo& operator=(AllocTrackTypeInfo const&) = delete;

  /// Counts `count` new objects, with a record made now if the slot is empty.
  static void trackArrayAllocation(AllocTrackTypeInfo** slot, std::type_info const& type,
                                   unsigned long size, unsigned long count) noexcept;

  /// Counts `count` objects of the record as gone.
  static void trackArrayDeallocation(AllocTrackTypeInfo* record, unsigned long count) noexcept;

  /// Makes the slot's record and counts nothing. A slot that has one keeps it.
  static void allocateTypeInfo(AllocTrackTypeInfo** slot, std::type_info const& type,
                               unsigned long size, bool isArray) noexcept;

  std::mutex lock;                       ///< guards the three numbers
  std::uint64_t totalAllocations = 0;    ///< ever counted
  std::uint32_t currentAllocations = 0;  ///< counted and not gone
  std::uint32_t peakAllocations = 0;     ///< the largest value of currentAllocations

  std::string const typeName;    ///< as std::type_info has it, not demangled
  unsigned long const typeSize;  ///< in bytes, as it was given
  bool const isArray;            ///< made by a count other than 1
};

/// All records made so far, oldest first. Any thread.
ZEL_EXPORT std::vector<AllocTrackTypeInfo*> allocTrackTypeInfos();

/// Says on standard error that memory has run out and throws std::bad_alloc.
[[noreturn]] ZEL_EXPORT void allocTrackAllocatorBadAlloc();

/// A standard allocator that counts the objects it has out, in one record for each T.
///
/// It holds no state: all of them are equal, and memory of one may be given back through
/// another. Counting takes the record's lock, whether or not there are threads. Exported, so that
/// the record is one for all libraries of the process.
template <class T>
class ZEL_EXPORT AllocTrackAllocator {
 public:
  using value_type = T;  ///< for std::allocator_traits

  AllocTrackAllocator() = default;
  /// Converts to another T and takes nothing along.
  template <class Other>
  AllocTrackAllocator(AllocTrackAllocator<Other> const&) noexcept {}

  /// Room for `count` objects, which may be 0. Fails through `allocTrackAllocatorBadAlloc()`.
  T* allocate(std::size_t count) {
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
    bool const fits = count <= std::numeric_limits<std::ptrdiff_t>::max() / sizeof(T);
    void* const memory = fits ? ::operator new(count * sizeof(T), std::nothrow) : nullptr;
    if (memory == nullptr) allocTrackAllocatorBadAlloc();
    AllocTrackTypeInfo::trackArrayAllocation(&record_, typeid(T), sizeof(T), count);
    return static_cast<T*>(memory);
  }

  /// Takes what `allocate(count)` of this type gave, not null.
  void deallocate(T* memory, std::size_t count) noexcept {
    AllocTrackTypeInfo::trackArrayDeallocation(record_, count);
    ::operator delete(memory);
  }

 private:
  static inline AllocTrackTypeInfo* record_ = nullptr;
};

/// Always true.
template <class T, class Other>
bool operator==(AllocTrackAllocator<T> const&, AllocTrackAllocator<Other> const&) noexcept {
  return true;
}

/// Always false.
template <class T, class Other>
bool operator!=(AllocTrackAllocator<T> const&, AllocTrackAllocator<Other> const&) noexcept {
  return false;
}

}  // namespace Zel
