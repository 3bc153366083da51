#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Brelo/Assert.h"
#include "Brelo/Backtrace.h"
#include "Brelo/Exception.h"
#include "ZelBrelo/BacktraceTracker.h"
#include "support/ChildProcess.h"

using namespace Brelo;
using testing::HasSubstr;

namespace {

struct Enabled {
  Enabled() { BacktraceTracker::enabledIs(true); }
  ~Enabled() {
    BacktraceTracker::enabledIs(false);
    BacktraceTracker::clear();
  }
};

std::vector<std::string> messages() {
  std::vector<std::string> all;
  for (TrackedBacktrace const& entry : BacktraceTracker::tracked())
    all.push_back(entry.message());
  return all;
}

TEST(BacktraceTracker, KeepsTheLatestWhileEnabled) {
  BacktraceTracker::backtraceIs("unheard");
  EXPECT_EQ(BacktraceTracker::capacity(), 0U);
  BacktraceTracker::enabledIs(true);
  EXPECT_EQ(BacktraceTracker::capacity(), 100U);
  for (int i = 0; i < 101; ++i) {
    try {
      RuntimeException::throwException(std::to_string(i));
    } catch (RuntimeException const&) {
    }
  }
  EXPECT_EQ(messages().size(), 100U);
  EXPECT_EQ(messages().front(), "1");
  BacktraceTracker::capacityIs(3);
  EXPECT_EQ(messages(), (std::vector<std::string>{"98", "99", "100"}));
  BacktraceTracker::capacityIs(4);
  BacktraceTracker::backtraceIs("more");
  EXPECT_EQ(messages(), (std::vector<std::string>{"98", "99", "100", "more"}));
  BacktraceTracker::enabledIs(false);
  EXPECT_EQ(messages().size(), 4U);
  BacktraceTracker::clear();
  EXPECT_EQ(BacktraceTracker::capacity(), 0U);
}

/// Throws and swallows one of the library's exceptions for each piece of text.
struct ThrowingBuffer : std::stringbuf {
  std::streamsize xsputn(char const* text, std::streamsize size) override {
    EXPECT_THROW(RuntimeException::throwException("while printing"), RuntimeException);
    return std::stringbuf::xsputn(text, size);
  }
};

TEST(BacktraceTracker, PrintsWhileMoreIsRecorded) {
  alarm(10);  // ends a thread that waits for itself
  Enabled const enabled;
  BacktraceTracker::backtraceIs("before");
  std::string const expected = BacktraceTracker::tracked()[0].toString() + "\n";
  ThrowingBuffer buffer;
  std::ostream stream(&buffer);
  BacktraceTracker::printAll(stream);
  EXPECT_EQ(buffer.str(), expected);
  EXPECT_EQ(messages().size(), 3U);
}

TEST(BacktraceTracker, AForkedChildRecordsWhileOthersHeldTheLocks) {
  Enabled const enabled;
  std::atomic<bool> stop = false;
  std::vector<std::thread> others;
  others.emplace_back([&] {
    while (!stop)
      BacktraceTracker::clear();
  });
  others.emplace_back([&] {
    while (!stop)
      Zel::TypeImpl::types();
  });
  for (int i = 0; i < 20 && !testing::Test::HasFailure(); ++i) {
    EXPECT_TRUE(BreloTest::passesInChild([] {
      alarm(10);
      EXPECT_THROW(RuntimeException::throwException("child"), RuntimeException);
      EXPECT_EQ(messages().back(), "child");
      EXPECT_NE(Zel::TypeImpl::type("ZelBrelo::BacktraceTracker"), nullptr);
    }));
  }
  stop = true;
  for (auto& other : others)
    other.join();
}

TEST(BacktraceTracker, IsReachedThroughTheHostsGenericInterface) {
  auto const invoke = [](char const* attribute, Zel::GenericValue const& argument = {}) {
    return Zel::GenericIfImpl::invoke("ZelBrelo::BacktraceTracker", attribute, argument);
  };
  throwOnAssertFailIs(true);
  EXPECT_THROW(invoke("capacityIs", std::uint32_t{5}), AssertException);
  invoke("enabledIs", true);
  EXPECT_EQ(std::get<bool>(invoke("enabled")), true);
  EXPECT_THROW(invoke("capacityIs", std::uint32_t{0}), AssertException);
  invoke("clear");
  invoke("capacityIs", std::uint32_t{7});
  EXPECT_EQ(std::get<std::uint32_t>(invoke("capacity")), 7U);
  invoke("backtraceIs", Zel::String("hello"));
  invoke("backtraceIs", Zel::String());
  EXPECT_EQ(messages(), (std::vector<std::string>{"hello", ""}));
  EXPECT_THAT(std::get<Zel::String>(invoke("printAll")).str(),
              HasSubstr("Exception message:hello\nTimestamp:"));
  EXPECT_THROW(invoke("capacityIs", true), std::invalid_argument);
  EXPECT_THROW(invoke("reset"), std::invalid_argument);
}

TEST(BacktraceTracker, ObeysTheDispatchCodes) {
  Zel::TypeRecord const& type = *Zel::TypeImpl::type("ZelBrelo::BacktraceTracker");
  ASSERT_EQ(type.attributeCount, 7U);
  ZelBrelo::BacktraceTracker self, other;
  Zel::GenericValue result;
  EXPECT_EQ(type.genericIfAttributeOp(&result, &self, &type.attributes[1], 9, nullptr), 1);
  Zel::AttributeRecord beyond = type.attributes[6];
  beyond.id = 9;
  EXPECT_EQ(type.genericIfAttributeOp(&result, &self, &beyond, 10, nullptr), 2);
  EXPECT_EQ(type.genericIfAttributeOp(&result, &self, nullptr, 11, &other), 0);
  EXPECT_EQ(result, Zel::GenericValue(false));
  EXPECT_EQ(type.genericIfAttributeOp(&result, &self, nullptr, 12, &other), 0);
  EXPECT_EQ(result, Zel::GenericValue(true));
  EXPECT_EQ(type.genericIfAttributeOp(&result, &self, nullptr, 13, &other), 1);
  EXPECT_THROW(type.hash(&self), std::logic_error);
  EXPECT_EQ(type.cast(&self, "ZelBrelo::BacktraceTracker"), &self);
  EXPECT_EQ(type.cast(&self, "ZelBrelo::Other"), nullptr);
  EXPECT_TRUE(type.textToValue(&other, Zel::String("any")));
  EXPECT_EQ(type.valueToText(&self), Zel::String());
  void* const made = type.constructFromArguments(nullptr, 0);
  EXPECT_NE(made, nullptr);
  type.destruct(made);
}

}  // namespace
