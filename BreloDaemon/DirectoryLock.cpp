#include "BreloDaemon/internal/DirectoryLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <time.h>

#include <cerrno>
#include <system_error>

namespace BreloDaemon {

namespace {

constexpr int triesOfASecond = 1000;
constexpr int triesOfAMoment = 20;

std::string directoryOf(std::string const& path) {
  auto const slash = path.rfind('/');
  if (slash == path.npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

DirectoryLock::DirectoryLock(std::string const& path, Wait wait) {
  std::string const directory = directoryOf(path);
  Descriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int tries = wait == aSecond ? triesOfASecond : triesOfAMoment; opened; --tries) {
    if (::flock(opened.get(), LOCK_EX | LOCK_NB) == 0) {
      directory_ = std::move(opened);
      return;
    }
    if ((errno != EWOULDBLOCK && errno != EINTR) || tries <= 1) break;
    timespec const pause{0, 1'000'000};
    ::nanosleep(&pause, nullptr);
  }
  if (wait == aSecond) {
    throw std::system_error(errno, std::generic_category(), path + ": locking its directory");
  }
}

}  // namespace BreloDaemon
