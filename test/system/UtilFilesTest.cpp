#include "Brelo/UtilFiles.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <functional>
#include <thread>

#include "Brelo/FileLock.h"
#include "Brelo/UtilPaths.h"
#include "Brelo/UtilSockets.h"
#include "support/ChildProcess.h"
#include "support/HelperTest.h"

using namespace Brelo::Util;

namespace {

class UtilFiles : public BreloTest::HelperTest {
 protected:
  UtilFiles() { umask(077); }
  ~UtilFiles() override { EXPECT_EQ(umask(022), 077u); }
  auto write(std::string const& path, std::string const& data, bool noThrow = false) {
    return [=] { return fileWrite(*handler, path, data, noThrow), "done"; };
  }
  auto read(std::string const& path, bool traceFailure = true) {
    return [=] { return fileRead(*handler, path, traceFailure); };
  }
};

unsigned modeOf(std::string const& path) {
  return unsigned(std::filesystem::symlink_status(path).permissions());
}

TEST_F(UtilFiles, AreMadeForAllUsersWhateverTheUmask) {
  write("written", "12345")();
  std::filesystem::last_write_time("written", {});
  EXPECT_TRUE(touch(*handler, "written") && touch(*handler, "touched"));
  EXPECT_EQ(std::filesystem::last_write_time("written").time_since_epoch().count(), 0);
  EXPECT_EQ(fileSize(*handler, "written"), 5U);
  EXPECT_EQ(mkpath("a/b//c/", 02753), 0);
  for (auto const& [name, mode] :
       {std::pair{"touched", 0666U}, {"written", 0666U}, {"a", 0753U}, {"a/b/c", 02753U}})
    EXPECT_EQ(modeOf(name), mode) << name;
  EXPECT_EQ(chmod("a", 02700), 0);
  EXPECT_EQ(mkpath("a/heir", 01777), 0);
  EXPECT_EQ(modeOf("a/heir"), 03777U) << "the group's bit comes from above";
  EXPECT_EQ(symlink("target", "link"), 0);
  EXPECT_TRUE(touch(*handler, "link"));
  EXPECT_EQ(modeOf("target"), 0600U);

  std::filesystem::permissions(".", std::filesystem::perms::all);
  EXPECT_TRUE(BreloTest::passesInChild([] {
    EXPECT_TRUE(getuid() != 0 || seteuid(65534) == 0);
    umask(0777);
    EXPECT_EQ(mkpath("unreadable/to/owner", 0333), 0);
    EXPECT_EQ(modeOf("unreadable/to/owner"), 0333U);
    umask(077);
  }));
}

TEST_F(UtilFiles, GoByDescriptorZeroAsByAnyOther) {
  EXPECT_TRUE(BreloTest::passesInChild([this] {
    close(STDIN_FILENO);
    EXPECT_TRUE(touch(*handler, "touched"));
    write("written", "text")();
    EXPECT_EQ(fileSize(*handler, "written"), 4U);
    umask(0777);
    EXPECT_EQ(mkpath("d", 0755), 0);
    EXPECT_EQ(modeOf("d"), 0755U);
    for (bool const replaced : {false, true}) {
      Brelo::FileLock lock(*handler, "d", "lock");
      EXPECT_TRUE(lock.lock(false));
      EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);
      if (!replaced) continue;
      EXPECT_EQ(unlink("d/lock"), 0);
      EXPECT_TRUE(lock.lock(false));
      EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    }
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
  }));
}

TEST_F(UtilFiles, AreMadeByManyThreadsAndTheUmaskStays) {
  constexpr int rounds = 10;
  std::atomic<int> ready{0};
  auto const make = [&](int round) {
    std::string const base = fmt::format("r{}", round);
    for (++ready; ready < 4 * (round + 1);)
      std::this_thread::yield();
    EXPECT_EQ(mkpath(base + "/d", 0777), 0);
    EXPECT_TRUE(touch(*handler, base + "/d/touched"));
    write(base + "/d/written", "text")();
    Brelo::FileLock(*handler, base + "/l", "lock").lock(false);
  };
  std::array<std::thread, 4> threads;
  for (auto& thread : threads)
    thread = std::thread([&] {
      for (int round = 0; round < rounds; ++round)
        make(round);
    });
  for (auto& thread : threads)
    thread.join();
  for (int round = 0; round < rounds; ++round)
    for (auto const& [name, mode] : {std::pair{"d", 0777U},
                                     {"d/touched", 0666U},
                                     {"d/written", 0666U},
                                     {"l", 0777U},
                                     {"l/lock", 0666U}})
      EXPECT_EQ(modeOf(fmt::format("r{}/{}", round, name)), mode) << name;
}

TEST_F(UtilFiles, AreWrittenOnceAndReadUpToTheFirstNul) {
  std::string const block(4096, 'x');
  for (auto const& text :
       {block + block + "y", block, std::string("five!\0rest", 10), std::string()}) {
    write("f", text)();
    EXPECT_EQ(read("f")(), text.c_str());
  }
  EXPECT_TRUE(BreloTest::passesInChild([&] {
    rlimit before;
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit const fourBytes = {4, before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &fourBytes), 0);
    EXPECT_EQ(outcome(write("f", "0123456789")),
              "0 wrote:4 bytes to file:f but wanted to write:10|done");
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  }));
}

TEST_F(UtilFiles, AreMeasured) {
  int const fd = open("f", O_RDWR | O_CREAT, 0600);
  EXPECT_EQ(Brelo::Util::truncate(*handler, "", fd, 1L << 33), 0);
  EXPECT_EQ(fileSize(*handler, fd) + fileSize(*handler, "f"), 2UL << 33);
  EXPECT_EQ(fileSizeHelper(~0UL / 2, 2, 1), ~0UL);
  EXPECT_THROW(fileSizeHelper(1UL << 63, 2, 0), Brelo::RuntimeException);
  EXPECT_THROW(fileSizeHelper(1, ~0UL, 1), Brelo::RuntimeException);
  EXPECT_EQ(decodeMagic(0x00434241UL) + decodeMagic(~0UL), "ABC" + std::string(8, '\xff'));
}

TEST_F(UtilFiles, AreRefusedOnAReadOnlyFileSystemAndToAStranger) {
  std::filesystem::permissions(".", std::filesystem::perms(0711));
  EXPECT_EQ(mkpath("d", 0755), 0);
  write("d/f", "text")();
  std::filesystem::permissions("d/f", std::filesystem::perms(0600));
  auto const expectRefusals = [this](std::string const& why, std::string const& reading) {
    EXPECT_EQ(outcome([&] { return touch(*handler, "d/n"); }),
              "0 unable to open d/n reason: " + why + "|false");
    EXPECT_EQ(outcome(write("d/f", "x")), "0 unable to open d/f reason:" + why + "|Runtime: x");
    EXPECT_EQ(outcome([&] { return fileRemove(*handler, "d/f"); }),
              "0 unlink() error d/f: " + why + "|false");
    EXPECT_EQ(outcome([] { return mkpath("d/a/b", 0755); }), "-1 " + why);
    EXPECT_EQ(mkpath("d", 0755), 0);
    EXPECT_EQ(outcome([&] { return trimpath(directory + "/d", "d"); }),
              "5 rmdir() error " + directory + "/d reason: " + why + "|-1 " + why);
    EXPECT_EQ(
        outcome([&] { return Brelo::FileLock(*handler, "d", "lock").lock(false); }),
        "5 file:d/lock|1 error: could not open lock file:d/lock " + why + "|5 file:d/lock|false");
    EXPECT_EQ(outcome(read("d/f")), reading);
  };
  if (getuid() != 0) GTEST_SKIP() << "is nobody already";
  EXPECT_TRUE(BreloTest::passesInChild([&] {
    EXPECT_EQ(seteuid(65534), 0);
    expectRefusals("Permission denied", "5 unable to open file d/f|");
  }));
  if (!BreloTest::mayUnshare(CLONE_NEWNS)) GTEST_SKIP() << "may not make a mount namespace";
  EXPECT_TRUE(BreloTest::passesInChild([&] {
    char const* const here = directory.c_str();
    BreloTest::mountHere(here, here, nullptr, MS_BIND);
    EXPECT_EQ(mount(nullptr, here, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(chdir(here), 0);
    expectRefusals("Read-only file system", "5 read d/f 'text'|text");
  }));
}

TEST_F(UtilFiles, MadeDirectoriesNeverLendTheirModeToALinkInTheirPlace) {
  EXPECT_EQ(mkpath("victim/shut", 0700), 0);
  EXPECT_TRUE(touch(*handler, "victim/file"));
  std::filesystem::permissions("victim/file", std::filesystem::perms(0600));
  EXPECT_EQ(symlink("victim", "p"), 0);
  EXPECT_EQ(symlink("file", "victim/link"), 0);
  EXPECT_EQ(symlink(".", "victim/dir"), 0);
  // By the time that it is to be made, someone has put a link there.
  for (std::string const path : {"p", "p/", "p/.", "p/shut/..", "p/link", "p/dir//", "p/file"}) {
    BreloTest::FaultInjection const late({{"mkdir", {ENOENT, EEXIST, EEXIST}}});
    EXPECT_EQ(mkpath(path, 02777), path.find('/') == std::string::npos ? -1 : 0) << path;
  }
  EXPECT_EQ(modeOf("victim"), 0700U);
  EXPECT_EQ(modeOf("victim/file"), 0600U);
}

TEST_F(UtilFiles, LeaveTheErrnoOfTheSystemWithEveryTraceOn) {
  for (unsigned short level = 0; level < 16; ++level)
    handler->enabledIs(level, true);
  EXPECT_TRUE(touch(*handler, "file") && mkpath(directory + "/full/inner", 0700) == 0);
  std::pair<int, std::function<int()>> const failures[] = {
      {ENOTDIR, [] { return mkpath("file/x/y", 0700); }},
      {ENOENT, [] { return mkpath("", 0700); }},
      {ENOTEMPTY, [&] { return trimpath(directory + "/full", "full"); }},
      {EBADF, [&] { return Brelo::Util::truncate(*handler, "file", -1, 0); }},
      {EAFNOSUPPORT, [&] { return Brelo::Util::socket(*handler, -1, SOCK_DGRAM, 0); }}};
  for (auto const& [error, call] : failures) {
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(errno, error) << Brelo::strerror(error);
  }
}

TEST_F(UtilFiles, FailAsTheTableSays) {
  write("f", "d")();
  EXPECT_TRUE(mkpath("a/b/c", 0700) == 0 && touch(*handler, "a/b/file"));
  auto const touchIt = [&] { return touch(*handler, "f"); };
  EXPECT_EQ(mkfifo("fifo", 0600), 0);
  auto const touchFifo = [&] { return touch(*handler, "fifo"); };
  auto const put = write("f", "d");
  auto const exists = [&] { return fileExists(*handler, "f"); };
  auto const remove = [&] { return fileRemove(*handler, "f"); };
  auto const measuring = [&] { return fileSize(*handler, "f"); };
  auto const measuringOpen = [&] { return fileSize(*handler, 0); };
  auto const cut = [&] { return Brelo::Util::truncate(*handler, "p", 0, -7); };
  auto const make = [](char const* path) { return [=] { return mkpath(path, 0700); }; };
  auto const trim = [](std::string p, char const* e) { return [=] { return trimpath(p, e); }; };
  auto const ask = [&] { return getCwd(*handler); };
  BreloTest::tryFaults({
      row({{"open", {EMFILE}}}, touchIt, "0 unable to open f reason: Too many open files|false"),
      row({}, touchFifo, "0 unable to open fifo reason: No such device or address|false"),
      row({{"close", {EIO}}}, touchIt, "0 unable to close fd:N reason:Input/output error|false"),
      row({{"open", {EROFS}}}, put, "0 unable to open f reason:Read-only file system|Runtime: d"),
      row({{"write", {EIO}}, {"close", {EDQUOT}}}, put,
          "0 unable to write to f reason:Input/output error|"
          "0 unable to close fd:N reason:Disk quota exceeded|Runtime: d"),
      row({}, write("/dev/full", "d"),
          "0 unable to write to /dev/full reason:No space left on device|Runtime: d"),
      row({{"close", {EINTR}}}, write("f", "d", true),
          "0 unable to close fd:N reason:Interrupted system call|done"),
      row({{"fopen64", {EMFILE}}}, read("f"), "5 unable to open file f|"),
      row({{"fopen64", {EMFILE}}}, read("f", false), ""),
      row({{"read", {EIO}}}, read("f", false), "1 failed to read from f|"),
      row({{"stat", {EACCES}}}, exists, "5 checking if f exists, stat result: -1|false"),
      row({{"stat", {EACCES}}}, measuring, "5 unable to stat file f: Permission denied|0"),
      row({{"fstat", {EBADF}}}, measuringOpen, "5 unable to fstat fd 0: Bad file descriptor|0"),
      row({{"ftruncate", {EFBIG}}}, cut, "0 size:-7 error: p: File too large|-1 File too large"),
      row({{"unlink", {EBUSY}}}, remove, "0 unlink() error f: Device or resource busy|false"),
      row({}, remove, "5 removed file f|true"),
      row({{"unlink", {ENOENT}}}, remove, "true"),
      row({{"mkdir", {EEXIST}}}, make("p/new"), "0"),
      row({{"mkdir", {EROFS}}}, make("p/new"), "-1 Read-only file system"),
      row({{"mkdir", {ENOENT, EACCES}}}, make("p/new"), "-1 Permission denied"),
      row({{"mkdir", {ENOENT, 0, ENOSPC}}}, make("p/new"), "-1 No space left on device"),
      row(
          {{"fchmod", {EPERM}}}, [] { return mkpath("fixed", 0777); },
          "1 unable to set mode of fixed: Operation not permitted|0"),
      row({{"open", {EMFILE}}}, make("plain"),
          "1 unable to set mode of plain: Too many open files|0"),
      row({}, make("a/b/file/x/y"), "-1 Not a directory"),
      row({}, make(""), "-1 No such file or directory"),
      row({{"rmdir", {EBUSY}}}, trim("/nowhere/x", "x"),
          "5 rmdir() error /nowhere/x reason: Device or resource busy|-1 Device or resource busy"),
      row({{"rmdir", {ENOENT, 0}}}, trim("/n/x", "n/x"), testing::EndsWith(" /n/x|0")),
      row({}, trim(directory + "/a/b/c", "/c"), testing::StartsWith("5 removed sub-tree /c from")),
      row({}, trim(directory + "/a/b/c", "a/b/c"), testing::EndsWith("|-1 Directory not empty")),
      row({}, trim("a/b", ""), "Assert: absolute path is not absolute"),
      row({}, trim("/a", "/a"), "Assert: trailing path longer than absolute path"),
      row({}, trim("/a/b", "a"), testing::StartsWith("Assert: trailing path is not a terminal")),
      row({{"getcwd", {ENOENT}}}, ask, "Runtime: getcwd() failed:No such file or directory"),
  });
}

}  // namespace
