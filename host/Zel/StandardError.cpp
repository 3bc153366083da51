#include "Zel/internal/StandardError.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace Zel {

void writeStandardError(std::string_view text) noexcept {
  int const savedErrno = errno;
  while (!text.empty()) {
    ssize_t const written = ::write(STDERR_FILENO, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      // An error or a hang-up ends the wait, and the next write tells it.
      pollfd writable = {STDERR_FILENO, POLLOUT, 0};
      ::poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      break;
    }
  }
  errno = savedErrno;
}

}  // namespace Zel
