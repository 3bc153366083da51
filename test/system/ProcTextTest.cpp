#include "Brelo/system/ProcText.h"

#include <gtest/gtest.h>

namespace {

using namespace Brelo::Impl;

TEST(ProcText, ALineMayHaveAnyNumberOfFields) {
  EXPECT_EQ(inodeField("0000: 00000002 0001 01 4711 @name"), "4711");
  EXPECT_EQ(inodeField("4711 @name"), "4711");
  EXPECT_EQ(inodeField(" @name"), "");
  EXPECT_EQ(inodeField("@name"), "");
  EXPECT_EQ(inodeField(""), "");
}

TEST(ProcText, ANumberEndsWithItsDigits) {
  EXPECT_EQ(toU32("4294967295"), 4294967295U);
  EXPECT_EQ(toU32("4294967296"), 0U);
  EXPECT_EQ(toU32("17 4"), 17U);
  EXPECT_EQ(toU32("self"), 0U);
}

}  // namespace
