#include "Brelo/UtilFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>

#include "Brelo/system/SharedModes.h"
#include "Brelo/system/UtilTrace.h"

namespace Brelo::Util {

using Platform::DebugHandler;

namespace {

/// The whole rest of the stream. Reading ends with the end-of-file bit, or it failed.
std::string readAll(std::istream& in) {
  std::string text;
  char block[4096];
  while (in.read(block, sizeof block) || in.gcount() > 0) {
    text.append(block, static_cast<std::size_t>(in.gcount()));
  }
  return text;
}

}  // namespace

bool touch(DebugHandler& handler, std::string const& path) {
  // Not to wait for the reader of a FIFO.
  int const fd = Impl::openShared(path, O_WRONLY | O_NONBLOCK);
  if (fd < 0) {
    BRELO_UTIL_TRACE(handler, 0, "unable to open {} reason: {}", path, Brelo::strerror(errno));
    return false;
  }
  if (close(fd) != 0) {
    BRELO_UTIL_TRACE(handler, 0, "unable to close fd:{} reason:{}", fd, Brelo::strerror(errno));
    return false;
  }
  return true;
}

void fileWrite(DebugHandler& handler, std::string const& path, std::string const& data,
               bool noThrow) {
  bool failed = false;
  int const fd = Impl::openShared(path, O_RDWR | O_TRUNC);
  if (fd < 0) {
    failed = true;
    BRELO_UTIL_TRACE(handler, 0, "unable to open {} reason:{}", path, Brelo::strerror(errno));
  } else {
    ssize_t const written = write(fd, data.data(), data.size());
    if (written < 0) {
      failed = true;
      BRELO_UTIL_TRACE(handler, 0, "unable to write to {} reason:{}", path, Brelo::strerror(errno));
    } else if (static_cast<std::size_t>(written) < data.size()) {
      BRELO_UTIL_TRACE(handler, 0, "wrote:{} bytes to file:{} but wanted to write:{}", written,
                       path, data.size());
    }
    if (close(fd) != 0) {
      failed = true;
      BRELO_UTIL_TRACE(handler, 0, "unable to close fd:{} reason:{}", fd, Brelo::strerror(errno));
    }
  }
  if (failed && !noThrow) BRELO_THROW(handler, "Brelo::Util", "{}", data);
}

std::string fileRead(DebugHandler& handler, std::string const& path, bool traceFailure) {
  try {
    std::ifstream file(path);
    if (!file) {
      if (traceFailure) BRELO_UTIL_TRACE(handler, 5, "unable to open file {}", path);
      return {};
    }
    std::string text = readAll(file);
    text.resize(std::min(text.size(), text.find('\0')));
    if (file.eof()) {
      BRELO_UTIL_TRACE(handler, 5, "read {} '{}'", path, text);
    } else {
      BRELO_UTIL_TRACE(handler, 1, "failed to read from {}", path);
    }
    return text;
  } catch (std::exception const& exception) {
    if (traceFailure) {
      BRELO_UTIL_TRACE(handler, 5, "unable to open file {}. Caught std::exception: {}", path,
                       exception.what());
    }
    return {};
  }
}

bool fileExists(DebugHandler& handler, std::string const& path) {
  struct stat status;
  int const result = stat(path.c_str(), &status);
  BRELO_UTIL_TRACE(handler, 5, "checking if {} exists, stat result: {}", path, result);
  return result == 0;
}

bool fileRemove(DebugHandler& handler, std::string const& path) {
  if (unlink(path.c_str()) != 0) {
    if (errno == ENOENT) return true;
    BRELO_UTIL_TRACE(handler, 0, "unlink() error {}: {}", path, Brelo::strerror(errno));
    return false;
  }
  BRELO_UTIL_TRACE(handler, 5, "removed file {}", path);
  return true;
}

std::uint64_t fileSize(DebugHandler& handler, std::string const& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    BRELO_UTIL_TRACE(handler, 5, "unable to stat file {}: {}", path, Brelo::strerror(errno));
    return 0;
  }
  return static_cast<std::uint64_t>(status.st_size);
}

std::uint64_t fileSize(DebugHandler& handler, int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) {
    BRELO_UTIL_TRACE(handler, 5, "unable to fstat fd {}: {}", fd, Brelo::strerror(errno));
    return 0;
  }
  return static_cast<std::uint64_t>(status.st_size);
}

std::uint64_t fileSizeHelper(unsigned long entries, unsigned long entrySize, unsigned long header) {
  std::uint64_t product;
  std::uint64_t sum;
  bool const productOverflows = __builtin_mul_overflow(entries, entrySize, &product);
  bool const sumOverflows = __builtin_add_overflow(product, header, &sum);
  if (productOverflows || sumOverflows) {
    BRELO_THROW(Impl::utilTrace, "Brelo::Util",
                "fileSizeHelper overflow, entries:{} entrySize:{} xResult:{} endResult:{}", entries,
                entrySize, product, sum);
  }
  return sum;
}

int truncate(DebugHandler& handler, std::string const& path, int fd, long size) {
  int const result = ftruncate(fd, size);
  if (result != 0) {
    int const error = errno;
    BRELO_UTIL_TRACE(handler, 0, "size:{} error: {}: {}", size, path, Brelo::strerror(error));
    errno = error;
  }
  return result;
}

std::string decodeMagic(unsigned long magic) {
  char bytes[sizeof magic];
  std::memcpy(bytes, &magic, sizeof magic);
  return {bytes, strnlen(bytes, sizeof bytes)};
}

}  // namespace Brelo::Util
