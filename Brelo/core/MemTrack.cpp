#include "Brelo/MemTrack.h"

#include <algorithm>
#include <mutex>

#include "Zel/Ptr.h"

namespace Brelo::MemTrack {

namespace {

std::unique_lock<std::mutex> lockIfThreaded(Tracker tracker) {
  if (!Zel::VFPtrInterface::threadSafePointers_) return {};
  return std::unique_lock<std::mutex>(tracker->lock);
}

}  // namespace

void alloc(Tracker tracker, unsigned long count) noexcept {
  auto const lock = lockIfThreaded(tracker);
  tracker->totalAllocations += count;
  tracker->currentAllocations += static_cast<std::uint32_t>(count);
  tracker->peakAllocations = std::max(tracker->peakAllocations, tracker->currentAllocations);
}

void dealloc(Tracker tracker, unsigned long count) noexcept {
  auto const lock = lockIfThreaded(tracker);
  tracker->currentAllocations -= static_cast<std::uint32_t>(count);
}

void alloc(Tracker* slot, std::type_info const& type, unsigned long size, unsigned long count) {
  Zel::AllocTrackTypeInfo::trackArrayAllocation(slot, type, size, count);
}

void allocTrackerIs(Tracker* slot, std::type_info const& type, unsigned long size,
                    unsigned long count) {
  Zel::AllocTrackTypeInfo::allocateTypeInfo(slot, type, size, count != 1);
}

}  // namespace Brelo::MemTrack
