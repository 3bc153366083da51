#include "Brelo/FdToStream.h"

#include <fcntl.h>

#include "Brelo/scheduling/SchedulerDiagnostics.h"

namespace Brelo {

namespace {

constexpr std::streamsize bufferSize = 4096;

}  // namespace

void FdToStream::fdIs(int fd, bool closeFd) {
  int const flags = fcntl(fd, F_GETFL);  // all bits are set for a bad descriptor
  BRELO_SCHEDULER_ASSERT((flags & O_NONBLOCK) == 0, "FileDescriptor ", fd, " flags 0x", std::hex,
                         flags, " is non-blocking, not supported");
  open(boost::iostreams::file_descriptor_sink(
           fd, closeFd ? boost::iostreams::close_handle : boost::iostreams::never_close_handle),
       bufferSize);
}

}  // namespace Brelo
