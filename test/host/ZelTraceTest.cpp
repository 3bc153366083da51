#include "Zel/Trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <utility>

#include "support/ChildProcess.h"
#include "support/TraceRecords.h"

namespace {

Zel::TraceFacilityMan& manager() {
  return *Zel::Entity::singletonIs<Zel::TraceFacilityMan>();
}

/// Returns what is complained of.
std::string settingsAre(std::string const& list) {
  setenv("TRACE", list.c_str(), 1);
  testing::internal::CaptureStderr();
  manager().doReadEnvironment();
  return testing::internal::GetCapturedStderr();
}

void trace(std::string const& message) {
  Zel::formatAndWriteTraceString("Fac", "dir/f.cpp", 42, "func", message.data(), message.size(), 7);
}

std::string rendered(char const* format, std::string const& message) {
  BreloTest::TraceRecords records(format);
  trace(message);
  return records.take();
}

TEST(ZelTrace, SettingsSelectFacilitiesAndLevels) {
  EXPECT_EQ(settingsAre("A/0+2-4+15,B*r/0,*x*yz/1 ,\t- C,,*C/4,D,-D/8-15, E/1+* "), "");
  std::pair<char const*, unsigned> const masks[] = {
      {"A", 0x801d}, {"Bar", 1}, {"Bars", 0}, {"axyxyz", 2}, {"C", 16}, {"D", 255}, {"E", 0xffff}};
  for (auto const& [facility, mask] : masks)
    EXPECT_EQ(*Zel::TraceHandle(facility, false).facility().levelsEnabledPtr(), mask) << facility;

  for (std::string const bad : {"-", "/3", "B/", "B/16", "B/4-2", "B/x", "B/1+", "B/1-2-3"}) {
    std::string const list = "-B/1," + bad + ",c/7+6+0,a/*";
    EXPECT_THAT(settingsAre(list), testing::HasSubstr("\"" + bad + "\""));
    EXPECT_EQ(settingsAre(list), "") << "reported once";
    EXPECT_EQ(testing::PrintToString(manager().traceSettingSnapshot()), "{ -B/1, c/0+6-7, a }");
  }
}

TEST(ZelTrace, FormatDirectives) {
  std::string const place =
      std::to_string(getpid()) + ":" + std::to_string(gettid()) + " Fac/7 dir/f.cpp:42 ";
  EXPECT_EQ(rendered("%p:%i %n/%l %f:%L %F %m %%", "hi"), place + "func hi %\n");
  EXPECT_THAT(rendered("", "hi"),
              testing::ContainsRegex("^[0-9-]{10} [0-9:]{8}\\.[0-9]{6} " + place + "hi\n$"));
  EXPECT_EQ(rendered("%x%m%", "100%t"), "%x100%t%\n");
  EXPECT_EQ(rendered("<%m>\n%m\n", "a\nb\n\n"), "<a\nb\n\n>\na\nb\n");
}

TEST(ZelTrace, RecordStaysWholeOnAFullPipeUnderSignals) {
  std::string const record(3'000'000, 'x');
  for (int const flags : {0, O_NONBLOCK}) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, flags), 0);
    pid_t const child = fork();
    if (child == 0) {
      struct sigaction action {};
      action.sa_handler = [](int) {};
      sigaction(SIGALRM, &action, nullptr);
      ualarm(200, 200);
      dup2(ends[1], STDERR_FILENO);
      trace(record);
      _exit(0);
    }
    close(ends[1]);
    std::string text;
    std::getline(std::ifstream("/dev/fd/" + std::to_string(ends[0])), text, '\0');
    EXPECT_TRUE(text.find(record + "\n") == text.size() - record.size() - 1) << text.size();
    waitpid(child, nullptr, 0);
  }
}

TEST(ZelTrace, ForkedChildTracesWhileAnotherThreadHoldsTheLock) {
  BreloTest::TraceRecords const records("%t %m");
  Zel::traceSinkIs([](char const*, std::size_t) { errno = EIO; });
  std::atomic<bool> stop = false;
  std::thread other([&] {
    while (!stop)
      manager().doReadEnvironment();
  });
  for (int i = 0; i < 50 && !HasFailure(); ++i)
    EXPECT_TRUE(BreloTest::passesInChild([] {
      alarm(10);  // ends a child that waits for a lock
      errno = ENOENT;
      trace("child");
      EXPECT_EQ(errno, ENOENT);
    }));
  stop = true;
  other.join();
}

}  // namespace
