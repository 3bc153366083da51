// The program around every test.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // tests have threads
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
