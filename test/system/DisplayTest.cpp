#include "Brelo/Display.h"

#include <gtest/gtest.h>

#include "Brelo/Counters.h"
#include "Brelo/MemTrack.h"
#include "Zel/Ptr.h"

using namespace Brelo;

namespace {

TEST(Display, ValuesPartsAndTypesAreReadable) {
  EXPECT_EQ(Impl::DisplaySubStringBase::toString("ab\0cd", 1, 4), std::string("b\0c", 3));
  EXPECT_EQ(typeName(typeid(char const* [3]).name()), "char const* [3]");
  EXPECT_EQ(typeName("_Znonsense"), "_Znonsense");

  unsigned char const value[] = {0xab, 0, 1, 2, 3};
  Platform::ValuePrinter printer("Value", sizeof value);
  EXPECT_EQ(IntrospectionMap::lookup("Value"), nullptr);
  IntrospectionMap::insert("Value", [](void const*) { return std::string(); });
  EXPECT_EQ(printer.toString(value), "ab000102 03");
  IntrospectionMap::insert("Value", [](void const*) { return std::string("text"); });
  EXPECT_EQ(printer.toString(value), "text");
}

TEST(Counters, WorkWithoutTheirPlugin) {
  Counters one("one"), other(nullptr);
  unsigned long own = 0;
  EXPECT_EQ(one.counter("hits", &own), &own);
  ++*one.counter("hits", nullptr);
  EXPECT_EQ(other.counter("misses", nullptr), one.counter("hits", nullptr));
}

TEST(MemTrack, PeakStaysAndTheLockIsForThreadsOnly) {
  MemTrack::Tracker tracker = nullptr;
  MemTrack::alloc(&tracker, typeid(int), sizeof(int), 5);
  MemTrack::dealloc(tracker, 4);
  Zel::VFPtrInterface::threadSafePointersIs(false);
  tracker->lock.lock();  // whoever asked for it would wait for ever
  MemTrack::alloc(tracker, 3);
  tracker->lock.unlock();
  Zel::VFPtrInterface::threadSafePointersIs(true);
  MemTrack::dealloc(tracker, 1);
  EXPECT_EQ(tracker->totalAllocations, 8U);
  EXPECT_EQ(tracker->currentAllocations, 3U);
  EXPECT_EQ(tracker->peakAllocations, 5U);
}

}  // namespace
