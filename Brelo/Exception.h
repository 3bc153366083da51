#pragma once

#include <exception>
#include <string>

#include "Brelo/Backtrace.h"
#include "Brelo/Export.h"

/// What `Brelo::strerror` writes to, unless the C library has a text of its own. Of the thread.
extern BRELO_EXPORT __thread char ERRNO_FORMATTED_BUFFER[256];

namespace Brelo {

/// The base of the library's exceptions: a message and the stack at the time of construction.
///
/// The stack is walked in the constructor, symbols are looked up only when `what()` is called.
/// Each construction is offered to the BacktraceTracker.
/// An instance belongs to one thread at a time. A failure while text is built ends the process.
class BRELO_EXPORT Exception : public std::exception {
 public:
  /// Without `captureBacktrace` the backtrace stays empty.
  Exception(std::string const& message, bool captureBacktrace);
  Exception(Exception const&) = default;             ///< keeps the stack of the original
  Exception& operator=(Exception const&) = default;  ///< keeps the stack of the original
  ~Exception() override;

  /// `msg()`, a new line and the backtrace's text; made at the first call and kept.
  char const* what() const noexcept override;
  /// The qualified name of the class.
  virtual char const* name() const noexcept;
  /// The class name, then the message in parentheses and double quotes.
  std::string msg() const;

 private:
  Backtrace backtrace_;
  std::string message_;
  mutable std::string what_;
};

// The family; `AssertException` stands in Assert.h.

/// What each class of the family has: made from its message it takes the stack, by `base`, the
/// initializer of its base; it has a name, and a function that builds and throws an instance, out
/// of line.
#define BRELO_EXCEPTION(Class, base)                   \
 public:                                               \
  explicit Class(std::string const& message) : base {} \
  char const* name() const noexcept override;          \
  [[noreturn]] static void throwException(std::string const& message)

/// Memory or another resource is exhausted.
class BRELO_EXPORT MemoryResourceException : public Exception {
  BRELO_EXCEPTION(MemoryResourceException, Exception(message, true));
};

/// Refused for want of permission.
class BRELO_EXPORT NoPermissionException : public Exception {
  BRELO_EXCEPTION(NoPermissionException, Exception(message, true));
};

/// The operation is not provided.
class BRELO_EXPORT UnimplementedException : public Exception {
  BRELO_EXCEPTION(UnimplementedException, Exception(message, true));
};

/// Set up in a wrong state or with wrong input.
class BRELO_EXPORT InvalidInitializeException : public Exception {
  BRELO_EXCEPTION(InvalidInitializeException, Exception(message, true));
};

/// A general failure at run time, such as a failed system call.
class BRELO_EXPORT RuntimeException : public Exception {
  BRELO_EXCEPTION(RuntimeException, Exception(message, true));
};

/// An index or a value is out of bounds.
class BRELO_EXPORT OutOfRangeException : public Exception {
  BRELO_EXCEPTION(OutOfRangeException, Exception(message, true));
};

/// A broken invariant in data.
class BRELO_EXPORT CorruptionDetectedException : public Exception {
  BRELO_EXCEPTION(CorruptionDetectedException, Exception(message, true));
};

/// A size that was found to be wrong.
class BRELO_EXPORT InvalidSizeException : public CorruptionDetectedException {
  BRELO_EXCEPTION(InvalidSizeException, CorruptionDetectedException(message));
};

#undef BRELO_EXCEPTION

/// The text of an error number, valid in the calling thread until its next call. `errno` is left
/// as it was.
BRELO_EXPORT char const* strerror(int errnum) noexcept;

}  // namespace Brelo
