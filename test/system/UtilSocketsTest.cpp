#include "Brelo/UtilSockets.h"

#include <linux/sockios.h>
#include <netnsaid.h>
#include <sys/ioctl.h>
#include <sys/un.h>

#include <fstream>

#include "support/ChildProcess.h"
#include "support/HelperTest.h"

using namespace Brelo;
using BreloTest::passesInChild;
using testing::EndsWith;

namespace {

class UtilSockets : public BreloTest::HelperTest {
 protected:
  std::function<int()> const make = [this] {
    int const sd = Util::socket(*handler, AF_INET, SOCK_DGRAM, 0);
    return sd < 0 ? sd : close(sd);
  };
  std::string const name = fmt::format("brelo-test-bound-{}", getpid());
  std::function<int()> const bind = [this] { return Util::createAndBindSocket(*handler, name); };
  std::string const opened = "2 success opening /proc/self/ns/net|2 setnsByName() to default ";
};

TEST_F(UtilSockets, AbstractNameIsCutAndReachedAndBoundOnce) {
  std::string const full(107, 'n');
  std::pair<std::string, std::string> const names[] = {
      {"", ""}, {std::string("a\0b", 3), "a"}, {full + "more", full}, {name, name}};
  sockaddr_un address;
  for (auto const& [asked, held] : names) {
    EXPECT_EQ(Util::createSockaddr(*handler, &address, asked), 3 + held.size());
    EXPECT_EQ(std::string(address.sun_path, held.size() + 1), '\0' + held);
  }
  EXPECT_EQ(listen(bind(), 1), 0);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  EXPECT_EQ(connect(::socket(AF_UNIX, SOCK_SEQPACKET, 0), generic, 3 + name.size()), 0);
  auto const failure = "|Runtime: bind() failed for socket:" + name;
  BreloTest::tryFaults({row({}, bind, EndsWith(failure + " error: Address already in use"))});
}

TEST_F(UtilSockets, SendBuffersAreSetWithinTheSystemsLimitReadOnce) {
  int const sd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  auto const set = [=] { return Util::setSocketSendBufferSize(sd, 10000); };
  auto const limit = Util::SYSTEM_MAX_SEND_BUFFER_SIZE;
  std::ofstream("limit") << "54321";
  auto const readsFile = [&] {
    BreloTest::mountHere("limit", "/proc/sys/net/core/wmem_max", nullptr, MS_BIND);
    EXPECT_EQ(limit(), 54321U);
  };
  EXPECT_TRUE(!BreloTest::mayUnshare(CLONE_NEWNS) || passesInChild(readsFile));
  BreloTest::tryFaults({
      row({{"setsockopt", {ENOMEM}}}, set, EndsWith(" 10000 bytes: Cannot allocate memory")),
      row({}, set, "0"),
      row({{"fopen64", {EMFILE}}}, limit, EndsWith("unable to convert string:  to int: stoi")),
      row({{"stat", {ENOENT}}}, limit, EndsWith("|8388608")),
      row({}, limit, "8388608"),
  });
  int size = 0;
  socklen_t length = sizeof size;
  EXPECT_TRUE(getsockopt(sd, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 && size == 20000);
}

TEST_F(UtilSockets, FailedCallsLeaveNoDescriptor) {
  std::string const denied = opened + "failure: cannot open /proc/1/ns/net: Permission denied|";
  std::string const reason = "2 failed to open /proc/self/ns/net reason: Permission denied|";
  BreloTest::tryFaults({
      row({{"open", {EMFILE}}}, make, "-1 Too many open files"),
      row({{"open", {EACCES}}, {"socket", {ENOMEM}}}, make, reason + "-1 Cannot allocate memory"),
      row({{"open", {ENOENT}}}, make,
          testing::ContainsRegex("No such file.*2 success opening local socket, sd:[0-9]+.0$")),
      row({{"open", {0, EACCES}}}, make, denied + "2 success opening local socket: Success|0"),
      row({{"open", {0, EACCES}}, {"socket", {EPERM}}}, make,
          EndsWith("opening local socket: Operation not permitted|-1 Operation not permitted")),
      row({{"open", {0, EACCES}}, {"close", {EIO}}}, make,
          EndsWith("|Runtime: failed to close( localNsFd ): Input/output error")),
      row({{"open", {ENOENT}}, {"socket", {EMFILE}}}, bind, EndsWith(": Too many open files")),
      row({{"setsockopt", {ENOMEM}}}, bind, EndsWith("failed: Cannot allocate memory")),
  });
}

TEST_F(UtilSockets, MayBeDescriptorZero) {
  EXPECT_TRUE(passesInChild([this] {
    close(STDIN_FILENO);
    BreloTest::tryFaults({row({{"open", {ENOENT}}}, make, EndsWith("local socket, sd:0|0"))});
  }));
}

// The default namespace is that of process 1, so here a process 1 of our own.
TEST_F(UtilSockets, SocketBelongsToTheDefaultNamespaceAndTheThreadComesBack) {
  if (!BreloTest::mayUnshare(CLONE_NEWPID | CLONE_NEWNS)) GTEST_SKIP() << "may not unshare";
  if (std::system(("ip netns add " + name).c_str()) != 0) GTEST_SKIP() << "may not `ip netns add`";
  auto const current = [] { return std::filesystem::read_symlink("/proc/thread-self/ns/net"); };
  EXPECT_TRUE(passesInChild([&] {
    EXPECT_EQ(unshare(CLONE_NEWPID), 0);
    EXPECT_TRUE(passesInChild([&] {
      BreloTest::mountHere("proc", "/proc", "proc", 0);
      EXPECT_TRUE(passesInChild([&] {
        for (auto const* other : {"", "..", "../netns/x", name.c_str()})
          EXPECT_TRUE(setnsByName(other, CLONE_NEWUTS) == -1 && errno == EINVAL) << other;
        auto const first = current();
        EXPECT_EQ(setnsByName(name.c_str(), CLONE_NEWNET), 0);
        auto const named = current();
        EXPECT_NE(named, first);
        int const owner = ioctl(Util::socket(*handler, AF_INET, SOCK_STREAM, 0), SIOCGSKNS);
        EXPECT_EQ(std::filesystem::read_symlink(fmt::format("/proc/self/fd/{}", owner)), first);
        EXPECT_EQ(current(), named);
        BreloTest::tryFaults(
            {row({}, make, opened + "success|2 success opening default socket: Success|0"),
             row({{"socket", {ENOBUFS}}}, make,
                 EndsWith("socket: No buffer space available|-1 No buffer space available")),
             row({{"setns", {0, EPERM}}}, make,
                 EndsWith("switch back to caller's namespace: Operation not permitted"))});
      }));
    }));
  }));
  EXPECT_EQ(std::system(("ip netns del " + name).c_str()), 0);
}

}  // namespace
