#include "Output.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "Failure.h"
#include "Text.h"

namespace Tool {

namespace {

std::string printableLines(std::string_view text) {
  std::string lines;
  for (;;) {
    std::size_t const end = text.find('\n');
    lines += printable(text.substr(0, end));
    if (end == std::string_view::npos) return lines;
    lines += '\n';
    text.remove_prefix(end + 1);
  }
}

void writeAll(std::string_view text) {
  while (!text.empty()) {
    ssize_t const written = ::write(STDOUT_FILENO, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EPIPE) {
      throw OutputClosed();
    } else if (errno == EAGAIN) {  // somebody else has made it so
      pollfd polled{STDOUT_FILENO, POLLOUT, 0};
      ::poll(&polled, 1, -1);
    } else if (errno != EINTR) {
      throw Failure(std::string("cannot write to standard output: ") + ::strerror(errno));
    }
  }
}

}  // namespace

void print(std::string_view text) {
  static bool const onTerminal = ::isatty(STDOUT_FILENO) == 1;
  if (onTerminal) {
    writeAll(printableLines(text));
  } else {
    writeAll(text);
  }
}

}  // namespace Tool
