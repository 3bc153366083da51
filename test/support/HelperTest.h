#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <locale>

#include "Brelo/Assert.h"
#include "support/FaultInjection.h"
#include "support/TraceRecords.h"

namespace BreloTest {

/// A test of helpers that trace and fail: it runs in a directory of its own and under a global
/// locale that groups digits, takes all traces but those of fine detail, and throws assertions.
class HelperTest : public testing::Test {
 protected:
  HelperTest() {
    for (unsigned short level = 0; level < 7; ++level)
      handler->enabledIs(level, true);
    Brelo::throwOnAssertFailIs(true);
    std::locale::global(std::locale(std::locale::classic(), new Grouping));
    std::filesystem::current_path(mkdtemp(directory.data()));
    Brelo::Exception const first("", true);  // the unwinder keeps descriptors from its first walk
  }
  ~HelperTest() override { std::filesystem::remove_all(directory); }

  /// What a call comes to: its traces with their levels, then its result, with the error of a -1,
  /// or its exception without "Exception", parted by bars. What is thrown is also traced at level
  /// 0, and told once. "fd:N" is any descriptor.
  template <class Call>
  std::string outcome(Call call) {
    records.take();
    std::string result;
    try {
      result = fmt::format("{}", call());
      if (result == "-1") result.append(" ").append(Brelo::strerror(errno));
    } catch (Brelo::Exception const& exception) {
      result = exception.msg();
    }
    return withoutPlaces(records.take() + result);
  }
  template <class Call>
  FaultRow row(Faults faults, Call call, testing::Matcher<std::string> const& expected) {
    return {testing::DescribeMatcher<std::string>(expected), std::move(faults),
            [=] { EXPECT_THAT(outcome(call), expected); }};
  }

  std::shared_ptr<Brelo::Platform::DebugHandler> const handler =
      Brelo::Platform::getDebugHandler("BreloUtil");
  TraceRecords records{"%l %m"};
  std::string directory = testing::TempDir() + "brelo.XXXXXX";

 private:
  static std::string withoutPlaces(std::string text);

  struct Grouping : std::numpunct<char> {
    std::string do_grouping() const override { return "\3"; }
  };
};

}  // namespace BreloTest
