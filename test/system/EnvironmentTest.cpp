#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>

namespace {

std::string outputOf(std::string const& program) {
  std::string const command =
      "env -i TZ=Early-24 TRACE=BreloUtil/1+9 TRACEFORMAT='%t|%m' HEAPCHECK= ZKTEST_RANDSEED=77 "
      "WAITFOR_DEFAULT=2.5 BRELO_BACKTRACE_VERBOSITY=0 " +
      program + " 2>&1";
  std::string output;
  std::FILE* const pipe = popen(command.c_str(), "r");
  for (int c; (c = std::fgetc(pipe)) != EOF;)
    output += static_cast<char>(c);
  EXPECT_EQ(pclose(pipe), 0);
  return output;
}

/// In the zone of `TZ`.
std::string today() {
  std::time_t const there = std::time(nullptr) + 24 * 60 * 60;
  char text[11];
  std::strftime(text, sizeof text, "%Y-%m-%d", std::gmtime(&there));
  return text;
}

TEST(Environment, IsTheCallersUnlessTheProgramHasMoreRights) {
  std::string const before = today();
  std::string const plain = outputOf(ENVIRONMENT_PROBE);
  EXPECT_THAT(plain, testing::AnyOf(testing::HasSubstr("secure:0\n" + before),
                                    testing::HasSubstr("secure:0\n" + today())));
  EXPECT_THAT(plain,
              testing::ContainsRegex("[|]fine detail\n.*[|]Brelo::Util::resolveSym.. symbolName"));
  EXPECT_THAT(plain, testing::HasSubstr("setting seed to 77\nBreloUtil/1+9 2.5 0\n"));

  std::string directory = testing::TempDir() + "brelo.XXXXXX";
  std::string const program = mkdtemp(directory.data()) + std::string("/probe");
  std::filesystem::copy_file(ENVIRONMENT_PROBE, program);
  bool const may = chown(program.c_str(), -1, 65534) == 0 && chmod(program.c_str(), 02755) == 0;
  std::string const secured = outputOf(program);
  std::filesystem::remove_all(directory);
  if (!may || secured.rfind("secure:0", 0) == 0) GTEST_SKIP() << "may not make it set-group-id";
  EXPECT_THAT(secured, testing::AllOf(testing::MatchesRegex("secure:1\nBrelo::Random.*\n inf 1\n"),
                                      testing::Not(testing::HasSubstr("to 77\n"))));
}

}  // namespace
