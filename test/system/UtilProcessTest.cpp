#include "Brelo/UtilProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>

#include <ctime>
#include <fstream>

#include "Brelo/UtilSockets.h"
#include "support/ChildProcess.h"
#include "support/HelperTest.h"

using namespace Brelo::Util;
using BreloTest::ChildProcess;
using testing::ContainsRegex;
using testing::HasSubstr;

namespace {

class UtilProcess : public BreloTest::HelperTest {
 protected:
  /// Opens a file in the calling process and locks all of it if given a command.
  static void openFile(char const* name, int command = F_GETLK) {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    EXPECT_EQ(fcntl(open(name, O_RDWR | O_CREAT, 0666), command, &lock), 0);
  }
  std::string const self = std::to_string(getpid());
  std::string const name = "brelo-test-" + self;
  std::function<int()> const socket = [&] { return readSocketPid(*handler, name); };
  std::function<int()> const lock = [&] { return readLockPid(*handler, directory + "/lock"); };
};

TEST_F(UtilProcess, ReadsNameStartTimeAndFirstWordWhateverTheName) {
  auto const ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
  std::pair<char const*, std::string> const names[] = {
      {" two words ", "two words"}, {") R 1 (2 3", ") R 1 (2 3"}, {"a\nb) S", "a\\nb) S"}};
  for (auto const& [title, shown] : names) {
    ChildProcess const child([title = title] { prctl(PR_SET_NAME, title); });
    EXPECT_EQ(outcome([&] { return readProcTitle(*handler, child.pid, false); }),
              fmt::format("5 success - title:{0}|{0}", shown));
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    EXPECT_NEAR(std::stod(readProcStartTime(child.pid)), ticks * double(now.tv_sec), 60 * ticks);
  }
  ChildProcess const nameless([] { prctl(PR_SET_NAME, " \t "); });
  EXPECT_THROW(readProcTitle(nameless.pid, true), std::out_of_range);
  ChildProcess const named([] { execl("/bin/sh", "first word", "-c", "kill -STOP $$", nullptr); });
  EXPECT_EQ(readPidCmdline(*handler, named.pid), "first word");
}

TEST_F(UtilProcess, FailsOnAStatFileWithoutAStartTime) {
  if (!BreloTest::mayUnshare(CLONE_NEWNS)) GTEST_SKIP() << "may not make a mount namespace";
  std::pair<char const*, char const*> const stats[] = {
      {"1 (a) ", "Assert: input not long enough to contain start time. file: /proc/"},
      {"1 (a) R 2\n", "\"1 (a) R 2\" procStartTime.size():0 tokPos:2 startTimeFieldPos:19"}};
  for (auto const& [text, failure] : stats) {
    std::ofstream("stat") << text;
    EXPECT_TRUE(BreloTest::passesInChild([&, failure = failure] {
      BreloTest::mountHere("stat", ("/proc/" + self + "/stat").c_str(), nullptr, MS_BIND);
      EXPECT_THAT(outcome([] { return readProcStartTime(getppid()); }), HasSubstr(failure));
    }));
  }
}

TEST_F(UtilProcess, FindsTheOwnerOfASocketAndTheHolderOfALock) {
  ChildProcess const child([&] { createAndBindSocket(*handler, name); });
  EXPECT_EQ(socket(), child.pid);
  EXPECT_THAT(outcome([&] { return readSocketPid(*handler, "RefCount"); }),  // of the heading
              ContainsRegex("1 Couldn't convert inode 'Inode' to U32..5 unable to find inode.0$"));

  // Listed as a holder of locks, with the file open, yet without a lock on it.
  ChildProcess const bystander([] { openFile("lock"), openFile("lock-and-more", F_SETLK); });
  auto const passedOver = fmt::format("5 pid:{} file:.* is open, but not locked.*", bystander.pid);
  EXPECT_THAT(outcome(lock), ContainsRegex(passedOver + "[|]0$"));
  for (int const command : {F_SETLK, F_OFD_SETLK}) {  // the holder of the latter is not listed
    ChildProcess const holder([=] { openFile("lock", command), openFile("listed", F_SETLK); });
    EXPECT_THAT(outcome(lock),
                ContainsRegex(passedOver + fmt::format("5 found owner pid:{0}.{0}$", holder.pid)));
  }
}

TEST_F(UtilProcess, FailedCallsAreMisses) {
  createAndBindSocket(*handler, name);
  openFile("lock", F_SETLK);
  auto const title = [&] { return readProcTitle(*handler, getpid(), true); };
  auto const loudTitle = [&] { return readProcTitle(*handler, getpid(), false); };
  auto const start = [&] { return readProcStartTime(*handler, getpid()); };
  BreloTest::tryFaults({
      row({{"fopen64", {ENOENT}}}, title,
          HasSubstr("5 error - Couldn't access status file:/proc/")),
      row({{"fopen64", {ENOENT}}}, loudTitle, HasSubstr("1 error - Couldn't access status file:/")),
      row({{"fopen64", {ENOENT}}}, start, HasSubstr("5 error - Couldn't access stat file:/proc/")),
      row({{"read", {ESRCH}}}, title, ContainsRegex("^1 error - Couldn't find proc title for pid")),
      row({{"read", {ESRCH}}}, start, ContainsRegex("^5 failed to read contents of file: /proc/")),
      row({{"fopen64", {EMFILE}}}, socket, ContainsRegex("5 unable to find inode.0$")),
      row({{"opendir", {EMFILE}}}, socket, ContainsRegex("Assert: Couldn't open /proc$")),
      row({{"opendir", {EMFILE}}}, lock, ContainsRegex("Assert: Couldn't open /proc$")),
      row({{"readdir", {ESRCH}}}, socket, ContainsRegex("[|]0$")),
      row({{"stat", {ENOENT}}}, socket, ContainsRegex("1 stat failed:No such.*[|]" + self + "$")),
      row({{"stat", {ENOENT}}}, lock, ContainsRegex("5 stat .* failed:No such.*[|]" + self + "$")),
      row({{"readlink", {ENOENT}}}, lock,
          ContainsRegex("5 readlink of file:/proc/.* failed No su")),
      row({{"fopen64", {EMFILE}}}, lock, ContainsRegex("[|]0$")),
  });
}

}  // namespace
