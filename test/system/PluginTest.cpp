#include "Brelo/Plugin.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Brelo/Assert.h"
#include "Brelo/Counters.h"
#include "support/TraceCapture.h"

using namespace Brelo::Platform;
using testing::HasSubstr;
using testing::ThrowsMessage;

namespace {

class LinkedInPlugin final : public Plugin {
 public:
  LinkedInPlugin() { registerPlugin(this); }
  char const* name() override { return "BreloTestLinkedIn"; }
} linkedIn;

TEST(Plugin, LoadsOnceUnlessLinkedIn) {
  BreloTest::TraceCapture capture("BreloPlugin");
  Brelo::Counters counters("group"), unnamed(nullptr);
  EXPECT_EQ(loadPlugin("BreloTestLinkedIn"), &linkedIn);
  EXPECT_EQ(capture.take(),
            "BreloPlugin/2 Brelo::Platform::registerPlugin() adding plugin TallyCountersPlugin\n"
            "BreloPlugin/2 Brelo::Platform::loadPlugin() Yay!  Plugin TallyCountersPlugin loaded\n"
            "BreloPlugin/3 Brelo::Platform::loadPlugin() TallyCountersPlugin already loaded\n"
            "BreloPlugin/3 Brelo::Platform::loadPlugin() BreloTestLinkedIn already loaded\n");
  EXPECT_EQ(*unnamed.counter("counter", nullptr), 42U);
}

TEST(Plugin, MissingOneIsNullAsOftenAsAskedFor) {
  for (int i = 0; i < 2; ++i) {
    BreloTest::TraceCapture capture("BreloPlugin");
    EXPECT_EQ(loadPlugin("None"), nullptr);
    EXPECT_THAT(capture.take(), HasSubstr("/0 Brelo::Platform::loadPlugin() Failed to load plugin "
                                          "libNone.so: libNone.so: cannot open"));
  }
  EXPECT_EQ(loadPlugin("None"), nullptr);
  EXPECT_NE(dlerror(), nullptr) << "the cause was read with nobody to tell it to";
}

TEST(Plugin, BrokenContractIsAnAssertion) {
  Brelo::throwOnAssertFailIs(true);
  EXPECT_THAT([] { loadPlugin("BreloTestMisnamed"); },
              ThrowsMessage<Brelo::AssertException>(HasSubstr(
                  "Platform::loadPlugin() Phooey -- plugin BreloTestMisnamed failed to register")));
  EXPECT_NE(loadPlugin("BreloTestOther"), nullptr) << "what it registered stands";
  EXPECT_THAT([] { registerPlugin(&linkedIn); },
              ThrowsMessage<Brelo::AssertException>(HasSubstr(
                  "Platform::registerPlugin() Plugin BreloTestLinkedIn already registered")));
}

}  // namespace
