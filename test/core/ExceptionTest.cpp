#include "Brelo/Exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "Brelo/Assert.h"
#include "Brelo/Backtrace.h"
#include "Brelo/Thread.h"

using namespace Brelo;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

template <class Thrown>
void expectFamilyMember(char const* name) {
  try {
    Thrown::throwException("it broke");
    FAIL() << name << " was not thrown";
  } catch (Exception const& e) {
    EXPECT_STREQ(e.name(), name);
    EXPECT_EQ(e.msg(), std::string(name) + "(\"it broke\")");
    EXPECT_NE(dynamic_cast<Thrown const*>(&e), nullptr);
  }
}

TEST(Exception, FamilyKeepsNamesAndMessages) {
  expectFamilyMember<MemoryResourceException>("Brelo::MemoryResourceException");
  expectFamilyMember<NoPermissionException>("Brelo::NoPermissionException");
  expectFamilyMember<UnimplementedException>("Brelo::UnimplementedException");
  expectFamilyMember<InvalidInitializeException>("Brelo::InvalidInitializeException");
  expectFamilyMember<RuntimeException>("Brelo::RuntimeException");
  expectFamilyMember<OutOfRangeException>("Brelo::OutOfRangeException");
  expectFamilyMember<CorruptionDetectedException>("Brelo::CorruptionDetectedException");
  expectFamilyMember<InvalidSizeException>("Brelo::InvalidSizeException");
  EXPECT_THROW(InvalidSizeException::throwException(""), CorruptionDetectedException);
  EXPECT_EQ(RuntimeException("").msg(), "Brelo::RuntimeException(\"\")");
}

TEST(Exception, WhatIsMadeOnceAndTellsThePlace) {
  RuntimeException const e("no luck");
  char const* const what = e.what();
  EXPECT_THAT(what, StartsWith("Brelo::RuntimeException(\"no luck\")\nTimestamp:"));
  EXPECT_THAT(what, HasSubstr(" tid:" + std::to_string(Brelo::gettid()) + " Backtrace:\n"));
  EXPECT_THAT(what, HasSubstr(std::string(program_invocation_short_name) + "("));
  EXPECT_EQ(e.what(), what);

  Exception const bare("bare", false);
  EXPECT_THAT(bare.what(), MatchesRegex("Brelo::Exception\\(\"bare\"\\)\nTimestamp:inf tid:[0-9]+ "
                                        "Backtrace:\nNo backtrace available\n"));
}

TEST(Strerror, KeepsErrnoAndKnowsUnknownNumbers) {
  errno = EAGAIN;
  EXPECT_STREQ(Brelo::strerror(ENOENT), "No such file or directory");
  EXPECT_THAT(Brelo::strerror(123456), HasSubstr("Unknown error 123456"));
  EXPECT_EQ(errno, EAGAIN);
}

}  // namespace
