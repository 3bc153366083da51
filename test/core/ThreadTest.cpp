#include "Brelo/Thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "Brelo/LibeventFactory.h"
#include "Zel/Activity.h"
#include "support/ChildProcess.h"

namespace {

using namespace Brelo;
using BreloTest::passesInChild;

TEST(Thread, HasANameAndSingletonsOfItsOwnAndTheMainOneKeepsItsName) {
  std::string const mainName = threadName();
  char kernels[16];
  pthread_getname_np(pthread_self(), kernels, sizeof kernels);
  EXPECT_EQ(mainName, kernels);
  threadNameIs("longer than any name");
  EXPECT_EQ(threadName(), mainName);
  std::thread([&] {
    EXPECT_EQ(threadName(), mainName);
    for (std::string const name : {"worker", "123456789012345", "w"}) {
      threadNameIs(name.c_str());
      pthread_getname_np(pthread_self(), kernels, sizeof kernels);
      EXPECT_TRUE(threadName() == name && kernels == name) << name;
    }
    EXPECT_DEATH(threadNameIs("1234567890123456"), "failed:34 for name:1234567890123456");
    useThreadLocalSingletons();
    EXPECT_TRUE(hasThreadLocalSingletons());
    useThreadLocalSingletons();
    std::thread([] { EXPECT_FALSE(hasThreadLocalSingletons()); }).join();
  }).join();
}

TEST(Thread, EveryForkMarksItsChildAndMakesItsThreadTheMainOne) {
  std::thread([] {
    EXPECT_TRUE(passesInChild([] {
      EXPECT_TRUE(isMainThread() && Platform::isForkedChild());
      Platform::forkedChildIs(false);
      EXPECT_FALSE(Platform::isForkedChild());
      EXPECT_TRUE(passesInChild([] { EXPECT_TRUE(Platform::isForkedChild()); }));
      EXPECT_FALSE(Platform::isForkedChild());
    }));
    EXPECT_FALSE(isMainThread() || Platform::isForkedChild());
  }).join();
}

TEST(Thread, AForkAmidTheFirstUseOfAnotherHangsNoChild) {
#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__
  GTEST_SKIP() << "the sanitizers' own allocators do not survive such a fork";
#endif
  auto const useBoth = [] {
    Zel::activityManager();
    leInit();
  };
  for (int round = 0; round < 100 && !HasFailure(); ++round) {
    EXPECT_TRUE(passesInChild([&] {
      std::atomic<bool> begin{false};
      std::vector<std::thread> others;
      for (int i = 0; i < 4; ++i) {
        others.emplace_back([&] {
          while (!begin) {
          }
          useBoth();
        });
      }
      begin = true;
      for (int forks = 0; forks < 3; ++forks)
        EXPECT_TRUE(passesInChild([&] { alarm(5), useBoth(); })) << "hung";
      for (std::thread& other : others)
        other.join();
    }));
  }
}

}  // namespace
