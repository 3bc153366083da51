#include "BreloDaemon/Descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

namespace BreloDaemon {
namespace {

bool isOpen(int fd) {
  return ::fcntl(fd, F_GETFD) >= 0;
}

int openNull() {
  return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST(Descriptor, ClosesWhatItStillOwns) {
  int const fd = openNull();
  {
    Descriptor first(fd);
    Descriptor second(std::move(first));
    EXPECT_FALSE(first);
    EXPECT_EQ(second.get(), fd);
    second = std::move(second);  // NOLINT: onto itself
    EXPECT_TRUE(isOpen(fd));
  }
  EXPECT_FALSE(isOpen(fd));

  Descriptor kept(openNull());
  int const other = openNull();
  int const old = kept.get();
  errno = EINTR;
  kept.reset(other);
  EXPECT_EQ(errno, EINTR);
  EXPECT_FALSE(isOpen(old));
  EXPECT_EQ(kept.release(), other);
  EXPECT_TRUE(isOpen(other));
  ::close(other);
}

}  // namespace
}  // namespace BreloDaemon
