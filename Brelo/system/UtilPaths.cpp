#include "Brelo/UtilPaths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Brelo/system/SharedModes.h"
#include "Brelo/system/UtilTrace.h"

namespace Brelo::Util {

using Impl::utilTrace;

int mkpath(std::string const& path, unsigned int mode) {
  BRELO_UTIL_TRACE(utilTrace, 9, "creating path: {} mode: {:o}", path, mode);
  if (Impl::makeDirectory(path, mode) == 0 || errno == EEXIST) return 0;
  if (errno != ENOENT) return -1;
  auto const slash = path.rfind('/');
  if (slash == std::string::npos || mkpath(path.substr(0, slash), mode) < 0) return -1;
  if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) return -1;
  Impl::directoryModeIs(path, mode);  // mkdir() leaves out the set-id bits
  return 0;
}

int trimpath(std::string const& absolutePath, std::string const& trailingPath) {
  if (absolutePath.empty()) BRELO_UTIL_FAIL(utilTrace, "absolute path is empty");
  if (absolutePath.front() != '/') BRELO_UTIL_FAIL(utilTrace, "absolute path is not absolute");
  if (trailingPath.empty()) BRELO_UTIL_FAIL(utilTrace, "trailing path is empty");
  if (absolutePath.size() <= trailingPath.size()) {
    BRELO_UTIL_FAIL(utilTrace, "trailing path longer than absolute path");
  }
  auto const kept = absolutePath.size() - trailingPath.size();
  if (absolutePath.compare(kept, std::string::npos, trailingPath) != 0) {
    BRELO_UTIL_FAIL(utilTrace, "trailing path is not a terminal substring of absolute path");
  }
  std::string path = absolutePath;
  for (;;) {
    BRELO_UTIL_TRACE(utilTrace, 9, "removing dir {}", path);
    if (rmdir(path.c_str()) != 0 && errno != ENOENT) {
      int const error = errno;
      BRELO_UTIL_TRACE(utilTrace, 5, "rmdir() error {} reason: {}", path, Brelo::strerror(error));
      errno = error;
      return -1;
    }
    auto const slash = path.rfind('/');
    if (slash == std::string::npos || slash <= kept) break;
    path.resize(slash);
  }
  BRELO_UTIL_TRACE(utilTrace, 5, "removed sub-tree {} from absolute path {}", trailingPath,
                   absolutePath);
  return 0;
}

std::string getCwd(Platform::DebugHandler& handler) {
  char path[4096];
  if (getcwd(path, sizeof path) == nullptr) {
    BRELO_THROW(handler, "Brelo::Util", "getcwd() failed:{}", Brelo::strerror(errno));
  }
  return path;
}

}  // namespace Brelo::Util
