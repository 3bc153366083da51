#include "Zel/AllocTrack.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"

namespace {

using Zel::AllocTrackTypeInfo;

TEST(ZelAllocTrack, AllocatorCountsObjectsOfItsType) {
  std::vector<int, Zel::AllocTrackAllocator<int>> items;
  items.reserve(10);
  AllocTrackTypeInfo const& record = *Zel::allocTrackTypeInfos().back();
  items.reserve(25);  // both blocks live for a moment
  testing::internal::CaptureStderr();
  EXPECT_THROW(static_cast<void>(items.get_allocator().allocate(SIZE_MAX / 2)), std::bad_alloc);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Zel: out of memory in a tracked allocation\n");
  EXPECT_EQ(record.totalAllocations, 35u);
  EXPECT_EQ(record.currentAllocations, 25u);
  EXPECT_EQ(record.peakAllocations, 35u);
}

TEST(ZelAllocTrack, ThreadsRaceForASlotAndForkWhileItIsLocked) {
  static AllocTrackTypeInfo* slot = nullptr;
  std::atomic<bool> stop = false;
  auto const count = [] {
    AllocTrackTypeInfo::trackArrayAllocation(&slot, typeid(int), 4, 3);
    AllocTrackTypeInfo::trackArrayDeallocation(slot, 3);
  };
  std::thread other([&] {
    while (!stop)
      count();
  });
  for (int i = 0; i < 100 && !HasFailure(); ++i) {
    EXPECT_TRUE(BreloTest::passesInChild([&] { alarm(10), count(); }));
  }
  stop = true;
  other.join();
  EXPECT_EQ(slot->currentAllocations, 0u);
}

}  // namespace
