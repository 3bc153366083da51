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

/// Memory or another resource is exhausted.
class BRELO_EXPORT MemoryResourceException : public Exception {
 public:
  /// Takes the stack.
  explicit MemoryResourceException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  /// Builds and throws an instance, out of line.
  [[noreturn]] static void throwException(std::string const& message);
};

/// Refused for want of permission.
class BRELO_EXPORT NoPermissionException : public Exception {
 public:
  /// Takes the stack.
  explicit NoPermissionException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  /// Builds and throws an instance, out of line.
  [[noreturn]] static void throwException(std::string const& message);
};

/// The operation is not provided.
class BRELO_EXPORT UnimplementedException : public Exception {
 public:
  /// Takes the stack.
  explicit UnimplementedException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  /// Builds and throws an instance, out of line.
  [[noreturn]] static void throwException(std::string const& message);
};

/// Set up in a wrong state or with wrong input.
class BRELO_EXPORT InvalidInitializeException : public Exception {
 public:
  /// Takes the stack.
  explicit InvalidInitializeException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  /// Builds and throws an instance, out of line.
  [[noreturn]] static void throwException(std::string const& message);
};

/// A general failure at run time, such as a failed system call.
class BRELO_EXPORT RuntimeException : public Exception {
 public:
  /// Takes the stack.
  explicit RuntimeException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  /// Builds and throws an instance, out of line.
  [[noreturn]] static void throwException(std::string const& message);
};

/// An index or a value is out of bounds.
class BRELO_EXPORT OutOfRangeException : public Exception {
 public:
  /// Takes the stack.
  explicit OutOfRangeException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  /// Builds and throws an instance, out of line.
  [[noreturn]] static void throwException(std::string const& message);
};

/// A broken invariant in data.
class BRELO_EXPORT CorruptionDetectedException : public Exception {
 public:
  /// Takes the stack.
  explicit CorruptionDetectedException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  /// Builds and throws an instance, out of line.
  [[noreturn]] static void throwException(std::string const& message);
};

/// A size that was found to be wrong.
class BRELO_EXPORT InvalidSizeException : public CorruptionDetectedException {
 public:
  /// Takes the stack.
  explicit InvalidSizeException(std::string const& message)
      : CorruptionDetectedException(message) {}
  char const* name() const noexcept override;
  /// Builds and throws an instance, out of line.
  [[noreturn]] static void throwException(std::string const& message);
};

/// The text of an error number, valid in the calling thread until its next call. `errno` is left
/// as it was.
BRELO_EXPORT char const* strerror(int errnum) noexcept;

}  // namespace Brelo
