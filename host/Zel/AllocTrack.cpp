#include "Zel/AllocTrack.h"

#include <pthread.h>

#include <algorithm>
#include <memory>

#include "Zel/internal/StandardError.h"

namespace Zel {

namespace {

struct Records {
  std::mutex lock;  // guards the list, and the filling of every slot
  std::vector<AllocTrackTypeInfo*> all;
  AllocTrackTypeInfo common{typeid(void), 0, false};  // of types that found no memory
};

Records& records() {
  static Records& instance = []() -> Records& {
    // Threads that the child does not have may hold locks of records: they start afresh there.
    ::pthread_atfork([] { records().lock.lock(); }, [] { records().lock.unlock(); },
                     [] {
                       for (AllocTrackTypeInfo* record : records().all) {
                         new (&record->lock) std::mutex;
                       }
                       new (&records().common.lock) std::mutex;
                       records().lock.unlock();
                     });
    return *new Records;
  }();
  return instance;
}

// Ahead of the fork handlers of those who use this, so that theirs never meet the lock held.
[[maybe_unused]] Records& registeredAtLoad = records();

AllocTrackTypeInfo* recordOf(AllocTrackTypeInfo** slot) {
  return __atomic_load_n(slot, __ATOMIC_ACQUIRE);
}

}  // namespace

AllocTrackTypeInfo::AllocTrackTypeInfo(std::type_info const& type, unsigned long size, bool array)
    : typeName(type.name()), typeSize(size), isArray(array) {}

void AllocTrackTypeInfo::trackArrayAllocation(AllocTrackTypeInfo** slot, std::type_info const& type,
                                              unsigned long size, unsigned long count) noexcept {
  if (recordOf(slot) == nullptr) allocateTypeInfo(slot, type, size, count != 1);
  AllocTrackTypeInfo& record = *recordOf(slot);
  std::lock_guard<std::mutex> const guard(record.lock);
  record.totalAllocations += count;
  record.currentAllocations += static_cast<std::uint32_t>(count);
  record.peakAllocations = std::max(record.peakAllocations, record.currentAllocations);
}

void AllocTrackTypeInfo::trackArrayDeallocation(AllocTrackTypeInfo* record,
                                                unsigned long count) noexcept {
  std::lock_guard<std::mutex> const guard(record->lock);
  record->currentAllocations -= static_cast<std::uint32_t>(count);
}

void AllocTrackTypeInfo::allocateTypeInfo(AllocTrackTypeInfo** slot, std::type_info const& type,
                                          unsigned long size, bool isArray) noexcept {
  std::lock_guard<std::mutex> const guard(records().lock);
  if (recordOf(slot) != nullptr) return;
  AllocTrackTypeInfo* record = &records().common;
  try {
    auto made = std::make_unique<AllocTrackTypeInfo>(type, size, isArray);
    records().all.push_back(made.get());
    record = made.release();
  } catch (std::bad_alloc const&) {
  }
  __atomic_store_n(slot, record, __ATOMIC_RELEASE);
}

std::vector<AllocTrackTypeInfo*> allocTrackTypeInfos() {
  std::lock_guard<std::mutex> const guard(records().lock);
  return records().all;
}

void allocTrackAllocatorBadAlloc() {
  writeStandardError("Zel: out of memory in a tracked allocation\n");
  throw std::bad_alloc();
}

}  // namespace Zel
