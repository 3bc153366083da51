#pragma once

#include <exception>
#include <string>

#include "Brelo/Backtrace.h"

namespace Brelo {

/// The base of the library's exceptions: a message and the stack at the time of construction.
///
/// The stack is walked in the constructor, symbols are looked up only when `what()` is called.
/// Each construction is offered to the BacktraceTracker.
/// An instance belongs to one thread at a time. A failure while text is built ends the process.
class Exception : public std::exception {
 public:
  /// Without `captureBacktrace` the backtrace stays empty.
  Exception(std::string const& message, bool captureBacktrace);
  Exception(Exception const&) = default;
  Exception& operator=(Exception const&) = default;
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

// The family. `throwException` builds and throws an instance, out of line. `AssertException`
// stands in Assert.h.

/// Memory or another resource is exhausted.
class MemoryResourceException : public Exception {
 public:
  explicit MemoryResourceException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// Refused for want of permission.
class NoPermissionException : public Exception {
 public:
  explicit NoPermissionException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// The operation is not provided.
class UnimplementedException : public Exception {
 public:
  explicit UnimplementedException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// Set up in a wrong state or with wrong input.
class InvalidInitializeException : public Exception {
 public:
  explicit InvalidInitializeException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// A general failure at run time, such as a failed system call.
class RuntimeException : public Exception {
 public:
  explicit RuntimeException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// An index or a value is out of bounds.
class OutOfRangeException : public Exception {
 public:
  explicit OutOfRangeException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// A broken invariant in data.
class CorruptionDetectedException : public Exception {
 public:
  explicit CorruptionDetectedException(std::string const& message) : Exception(message, true) {}
  char const* name() const noexcept override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// A size that was found to be wrong.
class InvalidSizeException : public CorruptionDetectedException {
 public:
  explicit InvalidSizeException(std::string const& message)
      : CorruptionDetectedException(message) {}
  char const* name() const noexcept override;
  [[noreturn]] static void throwException(std::string const& message);
};

/// The text of an error number, valid in the calling thread until its next call. `errno` is left
/// as it was.
char const* strerror(int errnum) noexcept;

}  // namespace Brelo
