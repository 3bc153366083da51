#include "Brelo/system/SharedModes.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "Brelo/system/OwnedFd.h"
#include "Brelo/system/UtilTrace.h"

namespace Brelo::Impl {

namespace {

/// The directory itself: with a slash at the end of its path, a link in its place would be
/// followed all the same.
int openDirectory(std::string const& path) {
  constexpr int flags = O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  int const fd = open(path.c_str(), O_RDONLY | flags);
  return fd < 0 && errno == EACCES ? open(path.c_str(), O_PATH | flags) : fd;
}

bool setMode(std::string const& path, mode_t mode) {
  OwnedFd const directory(openDirectory(path));
  if (directory.get() < 0) return false;
  if (fchmod(directory.get(), mode) == 0) return true;
  // EBADF is for one that its owner may not read.
  return errno == EBADF &&
         chmod(fmt::format("/proc/self/fd/{}", directory.get()).c_str(), mode) == 0;
}

}  // namespace

void directoryModeIs(std::string path, mode_t mode) {
  path.resize(path.find_last_not_of('/') + 1);
  std::string const name = path.substr(path.rfind('/') + 1);
  if (name == "." || name == ".." || setMode(path, mode)) return;
  BRELO_UTIL_TRACE(utilTrace, 1, "unable to set mode of {}: {}", path, Brelo::strerror(errno));
}

}  // namespace Brelo::Impl
