#include "Output.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "Failure.h"
#include "Text.h"

namespace Tool {

namespace {

constexpr char const* standardOutput = "standard output";

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

void writeAll(int descriptor, std::string const& name, std::string_view text) {
  while (!text.empty()) {
    ssize_t const written = ::write(descriptor, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EPIPE) {
      throw OutputClosed();
    } else if (errno == EAGAIN) {  // somebody else has made it so
      pollfd polled{descriptor, POLLOUT, 0};
      ::poll(&polled, 1, -1);
    } else if (errno != EINTR) {
      throw Failure("cannot write to " + name + ": " + ::strerror(errno));
    }
  }
}

}  // namespace

void print(std::string_view text) {
  static bool const onTerminal = ::isatty(STDOUT_FILENO) == 1;
  if (onTerminal) {
    writeAll(STDOUT_FILENO, standardOutput, printableLines(text));
  } else {
    writeAll(STDOUT_FILENO, standardOutput, text);
  }
}

OutputFile::OutputFile(std::string path) : path_(std::move(path)) {
  if (path_ == "-") return;
  descriptor_ = Descriptor(::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (!descriptor_) throw Failure("cannot write to " + path_ + ": " + ::strerror(errno));
}

void OutputFile::write(std::string_view text) {
  if (descriptor_) {
    writeAll(descriptor_.get(), path_, text);
  } else {
    print(text);
  }
}

}  // namespace Tool
