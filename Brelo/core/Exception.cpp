#include "Brelo/Exception.h"

#include <cerrno>
#include <cstring>

#include "Brelo/Assert.h"

__thread char ERRNO_FORMATTED_BUFFER[256];

namespace Brelo {

Exception::Exception(std::string const& message, bool captureBacktrace)
    : backtrace_(captureBacktrace), message_(message) {
  BacktraceTracker::backtraceIs(message_, backtrace_);
}

Exception::~Exception() = default;

char const* Exception::name() const noexcept {
  return "Brelo::Exception";
}

std::string Exception::msg() const {
  return std::string(name()) + "(\"" + message_ + "\")";
}

char const* Exception::what() const noexcept {
  if (what_.empty()) what_ = msg() + "\n" + backtrace_.pretty();
  return what_.c_str();
}

#define BRELO_EXCEPTION(Class)                             \
  char const* Class::name() const noexcept {               \
    return "Brelo::" #Class;                               \
  }                                                        \
  void Class::throwException(std::string const& message) { \
    throw Class(message);                                  \
  }

BRELO_EXCEPTION(MemoryResourceException)
BRELO_EXCEPTION(NoPermissionException)
BRELO_EXCEPTION(UnimplementedException)
BRELO_EXCEPTION(InvalidInitializeException)
BRELO_EXCEPTION(RuntimeException)
BRELO_EXCEPTION(OutOfRangeException)
BRELO_EXCEPTION(CorruptionDetectedException)
BRELO_EXCEPTION(InvalidSizeException)

#undef BRELO_EXCEPTION

char const* strerror(int errnum) noexcept {
  int const saved = errno;
  errno = 0;
  char const* const text =
      strerror_r(errnum, ERRNO_FORMATTED_BUFFER, sizeof ERRNO_FORMATTED_BUFFER);
  int const failure = errno;
  if (failure != 0) {
    BRELO_FAIL(nullptr, "Unable to format errno:{} error:{}", errnum, failure);
  }
  errno = saved;
  return text;
}

}  // namespace Brelo
