#include "Brelo/FdToStream.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <streambuf>

#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

class FdToStream::Buffer : public std::streambuf {
 public:
  Buffer(int fd, bool closeFd) : fd_(fd), closeFd_(closeFd) {
    setp(block_, block_ + sizeof block_);
  }
  ~Buffer() override {
    flush();
    if (closeFd_) ::close(fd_);
  }

 protected:
  int_type overflow(int_type character) override {
    if (!flush()) return traits_type::eof();
    if (!traits_type::eq_int_type(character, traits_type::eof())) {
      sputc(traits_type::to_char_type(character));
    }
    return traits_type::not_eof(character);
  }
  std::streamsize xsputn(char const* text, std::streamsize count) override {
    if (count > epptr() - pptr() && !flush()) return 0;
    if (count <= epptr() - pptr()) return std::streambuf::xsputn(text, count);
    return writeAll(text, count) ? count : 0;
  }
  int sync() override { return flush() ? 0 : -1; }

 private:
  bool flush() {
    std::streamsize const count = pptr() - pbase();
    setp(block_, block_ + sizeof block_);
    return writeAll(block_, count);
  }
  bool writeAll(char const* text, std::streamsize count) {
    while (count > 0) {
      ssize_t const written = ::write(fd_, text, static_cast<std::size_t>(count));
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return false;
      text += written;
      count -= written;
    }
    return true;
  }

  int fd_;
  bool closeFd_;
  char block_[4096];
};

FdToStream::FdToStream() : std::ostream(nullptr) {}

FdToStream::FdToStream(int fd, bool closeFd) : FdToStream() {
  fdIs(fd, closeFd);
}

FdToStream::~FdToStream() = default;

void FdToStream::fdIs(int fd, bool closeFd) {
  int const flags = fcntl(fd, F_GETFL);  // all bits are set for a bad descriptor
  BRELO_SCHEDULER_ASSERT((flags & O_NONBLOCK) == 0, "FileDescriptor ", fd, " flags 0x", std::hex,
                         flags, " is non-blocking, not supported");
  buffer_ = std::make_unique<Buffer>(fd, closeFd);
  rdbuf(buffer_.get());
}

}  // namespace Brelo
