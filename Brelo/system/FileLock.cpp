#include "Brelo/FileLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "Brelo/Assert.h"
#include "Brelo/UtilPaths.h"
#include "Brelo/system/OwnedFd.h"
#include "Brelo/system/Restarted.h"
#include "Brelo/system/SharedModes.h"

#define TRACE(level, ...) BRELO_TRACE(*debugHandler_, (level), "FileLock", __VA_ARGS__)
#define FAIL(...) fmassert(*debugHandler_, "FileLock", __FILE__, __func__, __LINE__, __VA_ARGS__)

namespace Brelo {

namespace {

/// Sets the whole file's lock; `type` is F_WRLCK or F_UNLCK.
int setLock(int fd, short type) {
  struct flock whole = {};
  whole.l_type = type;
  return Impl::restarted([&] { return fcntl(fd, cmd_F_OFD_SETLK(), &whole); });
}

}  // namespace

int cmd_F_OFD_SETLK() {
  return 37;
}

int cmd_F_OFD_GETLK() {
  return 36;
}

FileLock::FileLock(Platform::DebugHandler& handler, std::string const& dir, std::string const& name)
    : Debuggable(handler), dir_(dir), file_(dir.empty() ? name : dir + "/" + name) {
  if (name.find('/') != std::string::npos) FAIL("unexpected '/' in filename: {}", name);
}

FileLock::~FileLock() {
  TRACE(5, "file:{}", file_);
  if (fd_ >= 0) release();
}

bool FileLock::lock(bool reentrant) {
  TRACE(5, "file:{}", file_);
  int const pid = getpid();
  if (reentrant && ownerPid_ == pid) {
    TRACE(5, "re-entry held by pid:{} on file:{}", pid, file_);
    return true;
  }
  if (Util::mkpath(dir_, 0777) < 0) {
    FAIL("unexpected mkpath() error {}: {}", dir_, strerror(errno));
  }
  Impl::OwnedFd fd(Impl::openShared(file_, O_RDWR | O_NOFOLLOW));
  if (fd.get() < 0) {
    TRACE(1, "error: could not open lock file:{} {}", file_, strerror(errno));
    return false;
  }
  if (setLock(fd.get(), F_WRLCK) != 0) {
    if (errno != EAGAIN) FAIL("unexpected error: {} file:{}", strerror(errno), file_);
    TRACE(1, "error: conflicting lock held on file:{}", file_);
    return false;
  }
  // A program that inherits the description keeps the lock for as long as it runs.
  if (fcntl(fd.get(), F_SETFD, FD_CLOEXEC) != 0) {
    FAIL("unexpected error:{} file:{}", strerror(errno), file_);
  }
  TRACE(5, "acquired lock on file:{}", file_);
  if (fd_ >= 0) closeFd();  // inherited, or of a file that has been replaced since
  fd_ = fd.release();
  ownerPid_ = pid;
  return true;
}

void FileLock::release() {
  TRACE(5, "file:{}", file_);
  if (fd_ < 0) FAIL("attempting to release a lock that is not currently held. File:{}", file_);
  int const pid = getpid();
  if (pid != ownerPid_) FAIL("called from child process:{} of owner pid:{}", pid, ownerPid_);
  if (setLock(fd_, F_UNLCK) != 0) {
    FAIL("unexpected error: {} file:{} fd:{}", strerror(errno), file_, fd_);
  }
  closeFd();
  ownerPid_ = -1;
  TRACE(5, "released lock on file:{}", file_);
}

void FileLock::closeFd() {
  TRACE(5, "file:{} fd:{}", file_, fd_);
  if (fd_ < 0) {
    TRACE(5, "no active fd: nothing to do");
    return;
  }
  if (close(fd_) != 0) {
    TRACE(1, "error: {} file:{} fd:{}", strerror(errno), file_, fd_);
  } else {
    TRACE(5, "closed fd for file:{}", file_);
  }
  fd_ = -1;
}

}  // namespace Brelo
