#include "BreloDaemon/Descriptor.h"

#include <unistd.h>

#include <cerrno>

namespace BreloDaemon {

void Descriptor::reset(int fd) {
  int const old = std::exchange(fd_, fd);
  if (old < 0) return;
  int const error = errno;
  ::close(old);
  errno = error;
}

}  // namespace BreloDaemon
