#include "BreloDaemon/internal/StandardError.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace BreloDaemon::Impl {

void sayOnStandardError(std::string_view text) {
  while (!text.empty()) {
    // A pipe that is writable takes that much as a whole.
    auto const piece = text.substr(0, PIPE_BUF);
    pollfd look{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&look, 1, 0) <= 0) return;
    ssize_t const written = ::write(STDERR_FILENO, piece.data(), piece.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

void openStandardDescriptors() {
  for (;;) {
    int const fd = ::open("/dev/null", O_RDWR);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "/dev/null");
    if (fd <= STDERR_FILENO) continue;
    ::close(fd);
    return;
  }
}

}  // namespace BreloDaemon::Impl
