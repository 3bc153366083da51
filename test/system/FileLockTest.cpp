#include "Brelo/FileLock.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "Brelo/UtilPaths.h"
#include "support/ChildProcess.h"
#include "support/HelperTest.h"

using Brelo::FileLock;

namespace {

class FileLocks : public BreloTest::HelperTest {
 protected:
  /// Whether another process gets the lock.
  bool isFree() {
    auto const lock = [&] { return FileLock(*handler, "d", "lock").lock(false); };
    return BreloTest::passesInChild([&] { _exit(lock() ? 0 : 1); });
  }
  FileLock held{*handler, "d", "lock"};
  FileLock other{*handler, "d", "lock"};
};

TEST_F(FileLocks, ExcludeEachOther) {
  umask(077);
  EXPECT_EQ(outcome([&] { return held.lock(false); }),
            "5 file:d/lock|5 acquired lock on file:d/lock|true");
  EXPECT_EQ(umask(022), 077u);
  EXPECT_EQ(unsigned(std::filesystem::status(held.file()).permissions()), 0666U);
  unsigned const descriptors = BreloTest::openDescriptors();
  EXPECT_FALSE(other.lock(true));
  EXPECT_FALSE(held.lock(false));
  EXPECT_EQ(outcome([&] { return held.lock(true); }),
            fmt::format("5 file:d/lock|5 re-entry held by pid:{} on file:d/lock|true", getpid()));
  EXPECT_EQ(BreloTest::openDescriptors(), descriptors);
  close(open(held.file().c_str(), O_RDWR));
  EXPECT_FALSE(isFree());
  EXPECT_NE(std::system(("ls -l /proc/self/fd | grep -q " + held.file()).c_str()), 0);
  held.release();
  EXPECT_TRUE(isFree());
  EXPECT_TRUE(other.lock(true));
  EXPECT_FALSE(held.lock(true));

  // Another file under the name is another lock, and the old one's descriptor does not stay.
  EXPECT_EQ(unlink(held.file().c_str()), 0);
  EXPECT_TRUE(other.lock(false));
  EXPECT_EQ(BreloTest::openDescriptors(), descriptors);
}

TEST_F(FileLocks, EndWithTheProcessThatTookThem) {
  {
    BreloTest::ChildProcess const child([&] { other.lock(false); });
    EXPECT_FALSE(held.lock(false));
  }
  EXPECT_TRUE(held.lock(false));
  GTEST_FLAG_SET(death_test_style, "fast");  // the plain fork is what is tested
  Brelo::throwOnAssertFailIs(false);
  auto const text = "child process:[0-9]+ of owner pid:" + fmt::to_string(getpid());
  EXPECT_DEATH(held.release(), text);
  EXPECT_DEATH(held.~FileLock(), text);
  EXPECT_EXIT(_exit(held.lock(true) ? 1 : 0), testing::ExitedWithCode(0), "");
  EXPECT_FALSE(isFree());
  BreloTest::ChildProcess const heir([] {});  // has the descriptor as well
  held.release();
  EXPECT_TRUE(isFree());
}

TEST_F(FileLocks, FailAsTheTableSays) {
  auto const lock = [&] { return held.lock(true); };
  auto const release = [&] { return held.release(), "done"; };
  handler->enabledIs(5, false);
  EXPECT_EQ(FileLock(*handler, "", "name").file(), "name");
  EXPECT_THROW(FileLock(*handler, "", "a/b"), Brelo::AssertException);
  EXPECT_EQ(outcome([&] { return held.closeFd(), "done"; }), "done") << "there is nothing to do";
  EXPECT_EQ(Brelo::Util::mkpath("d", 0700), 0);
  BreloTest::tryFaults({
      row({}, release,
          "Assert: attempting to release a lock that is not currently held. File:d/lock"),
      row({{"mkdir", {EROFS}}}, lock, "Assert: unexpected mkpath() error d: Read-only file system"),
      row({{"open", {EACCES}}}, lock,
          "1 error: could not open lock file:d/lock Permission denied|false"),
      row({{"fcntl", {EAGAIN}}}, lock, "1 error: conflicting lock held on file:d/lock|false"),
      row({{"fcntl", {ENOLCK}}}, lock, "Assert: unexpected error: No locks available file:d/lock"),
      row({{"fcntl", {0, EBADF}}}, lock,
          "Assert: unexpected error:Bad file descriptor file:d/lock"),
  });
  EXPECT_EQ(symlink("lock", "d/link"), 0);
  EXPECT_EQ(outcome([&] { return FileLock(*handler, "d", "link").lock(false); }),
            "1 error: could not open lock file:d/link Too many levels of symbolic links|false");
  auto const lockAndRelease = [&] { return other.lock(false) && (other.release(), true); };
  BreloTest::tryFaults({row({{"open", {EINTR, ENOENT, EINTR}}, {"fcntl", {EINTR, 0, 0, EINTR}}},
                            lockAndRelease, "true")});
  EXPECT_TRUE(held.lock(false));
  BreloTest::tryFaults({row({{"fcntl", {ENOLCK}}}, release,
                            "Assert: unexpected error: No locks available file:d/lock fd:N")});
  BreloTest::FaultInjection const unclosed({{"close", {EIO}}});
  EXPECT_EQ(outcome(release), "1 error: Input/output error file:d/lock fd:N|done");
  EXPECT_TRUE(isFree());
}

}  // namespace
