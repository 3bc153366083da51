#include "Brelo/Thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <string>

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

}  // namespace
