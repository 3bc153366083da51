#include "Brelo/system/SharedModes.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "Brelo/system/OwnedFd.h"
#include "Brelo/system/Restarted.h"
#include "Brelo/system/UtilTrace.h"

namespace Brelo::Impl {

namespace {

constexpr mode_t allBits = 07777;
constexpr mode_t bitsOfMkdir = 01777;  // it leaves out the set-id bits
constexpr mode_t sharedFile = 0666;

int openPath(std::string const& path, int flags) {
  return restarted([&] { return open(path.c_str(), flags | O_CLOEXEC, sharedFile); });
}

/// The directory itself: with a slash at the end of its path, a link in its place would be
/// followed all the same.
int openDirectory(std::string const& path) {
  constexpr int flags = O_DIRECTORY | O_NOFOLLOW;
  int const fd = openPath(path, O_RDONLY | flags);
  return fd < 0 && errno == EACCES ? openPath(path, O_PATH | flags) : fd;
}

/// Sets the mode, and keeps those of its former bits.
bool setMode(std::string const& path, mode_t mode, mode_t kept) {
  OwnedFd const directory(openDirectory(path));
  struct stat status;
  if (directory.get() < 0 || fstat(directory.get(), &status) != 0) return false;
  mode |= status.st_mode & kept;
  if ((status.st_mode & allBits) == mode || fchmod(directory.get(), mode) == 0) return true;
  // EBADF is for one that its owner may not read.
  return errno == EBADF &&
         chmod(fmt::format("/proc/self/fd/{}", directory.get()).c_str(), mode) == 0;
}

void trySetMode(std::string path, mode_t mode, mode_t kept) {
  path.resize(path.find_last_not_of('/') + 1);
  std::string const name = path.substr(path.rfind('/') + 1);
  if (name == "." || name == ".." || setMode(path, mode, kept)) return;
  BRELO_UTIL_TRACE(utilTrace, 1, "unable to set mode of {}: {}", path, Brelo::strerror(errno));
}

}  // namespace

int openShared(std::string const& path, int flags) {
  int fd = openPath(path, flags);
  if (fd >= 0 || errno != ENOENT) return fd;
  fd = openPath(path, flags | O_CREAT | O_EXCL);
  if (fd >= 0) fchmod(fd, sharedFile);
  // Somebody else has made it since, or it is a link to nothing.
  return fd < 0 && errno == EEXIST ? openPath(path, flags | O_CREAT) : fd;
}

int makeDirectory(std::string const& path, mode_t mode) {
  if (mkdir(path.c_str(), mode) != 0) return -1;
  trySetMode(path, mode & bitsOfMkdir, allBits);
  return 0;
}

void directoryModeIs(std::string const& path, mode_t mode) {
  trySetMode(path, mode & allBits, 0);
}

}  // namespace Brelo::Impl
