#include "Brelo/Locking.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>

#include "Brelo/Assert.h"
#include "Brelo/Loco.h"
#include "Brelo/Thread.h"
#include "ZelBrelo/ActivityLock.h"
#include "support/Handlers.h"

namespace {

using namespace Brelo::Locking;
using Brelo::Platform::LocoGuard;

/// What a release comes to: the assertion's text from the lock's name on.
template <class L>
std::string release(L& lock) {
  try {
    return lock.unlock(), "released";
  } catch (Brelo::AssertException const& refused) {
    std::string const text = refused.msg();
    return text.substr(text.find("Lock::unlock()"));
  }
}

std::string refusal(std::string const& owner, std::string const& end) {
  return "Lock::unlock() attempting to release a lock that is not currently held, owner:" + owner +
         " me:" + Brelo::toThreadIdString(std::this_thread::get_id()) + end + "\")";
}

template <class L>
void takeAndRelease(L&& lock, int depth, char const* taken, char const* free) {
  auto const holder = Brelo::toThreadIdString(std::this_thread::get_id());
  EXPECT_TRUE(lock.try_lock());
  EXPECT_EQ(lock.try_lock(), depth == 2);
  std::thread([&] {
    EXPECT_TRUE(!lock.owns_lock() && !lock.try_lock());
    EXPECT_EQ(release(lock), refusal(holder, taken));
  }).join();
  for (; depth > 0; --depth)
    EXPECT_TRUE(lock.owns_lock() && release(lock) == "released");
  EXPECT_EQ(release(lock), refusal("thread::id of a non-executing thread", free));
  std::thread([&] { EXPECT_TRUE(lock.try_lock() && release(lock) == "released"); }).join();
}

TEST(Locking, OnlyTheHolderReleasesAndAsOftenAsItHasTaken) {
  Brelo::throwOnAssertFailIs(true);
  takeAndRelease(Lock(), 1, "", "");
  takeAndRelease(RecursiveLock(), 2, " lockCount:2", " lockCount:0");
  Lock lock;
  ConditionalGuard(lock).releaseIs(false);
  EXPECT_EQ(release(lock), "released");
  ConditionalGuard const guard(lock);
  EXPECT_EQ(release(lock), "released");
}

TEST(Locking, ThreadsExcludeEachOtherAndTheLocoTheHostsHandlers) {
  Lock lock;
  RecursiveLock recursive;
  int counts[3] = {};
  auto const work = [&] {
    for (int i = 0; i < 2000; ++i) {
      EXPECT_FALSE(lock.owns_lock());
      ConditionalGuard{lock}, ++counts[0];
      std::lock_guard<RecursiveLock>{recursive}, ++counts[1];
      LocoGuard{}, ++counts[2];
    }
  };
  std::thread other(work);
  BreloTest::Timer timer;
  timer.action = [&] {
    LocoGuard{};  // passes, and the loop holds on
    if (++counts[2], timer.runs < 1000) timer.control->setTimeout(0.0);
  };
  timer.control->setTimeout(0.0);
  Brelo::Platform::doEventLoop();
  work();
  other.join();
  EXPECT_THAT(counts, testing::ElementsAre(4000, 4000, 5000));
}

TEST(Locking, AnActivityLockKnowsItsLatestLockOnly) {
  Zel::Lock host;
  ZelBrelo::ActivityLock lock(&host);
  lock.unlock();  // it has taken nothing
  lock.lock();
  lock.lock();
  lock.unlock();
  EXPECT_TRUE(host.heldByThisThread() && !lock.owns_lock());
  host.unlock();
}

}  // namespace
