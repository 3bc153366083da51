#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace Brelo {

/// A record of the calling thread's stack: the instruction pointers of up to 100 frames,
/// innermost first, with the thread and the time. It holds no pointer and no heap data, so it
/// is copied as one block. Any thread may take one; symbols are looked up only by `pretty()`.
class Backtrace {
 public:
  /// Takes the stack at once if `capture` is set; else the record is empty and its time is
  /// positive infinity.
  explicit Backtrace(bool capture);

  /// Replaces the record by the stack as it is here; the first entry is the caller. Deeper
  /// stacks are cut at the 100 innermost frames; a walk that fails keeps what it has got.
  __attribute__((noinline)) void unwind();
  /// A headline with time and thread, then a line for each frame: object file, mangled symbol
  /// with offset, address.
  std::string pretty() const;

  std::uint32_t count() const { return count_; }
  void* const* frames() const { return frames_; }

  /// 0 if the environment variable BRELO_BACKTRACE_VERBOSITY is exactly "0", else 1. For clients:
  /// the library's own texts do not depend on it.
  static int verbosity();

 private:
  static constexpr unsigned maxFrames = 100;
  __attribute__((noinline)) std::uint32_t walkBySteps();

  void* frames_[maxFrames];
  std::uint32_t count_ = 0;
  std::int32_t tid_;
  double timestamp_;  // Brelo::time()
};

class TrackedBacktrace {
 public:
  TrackedBacktrace(std::string const& message, Backtrace const& backtrace)
      : message_(message), backtrace_(backtrace) {}

  std::string const& message() const { return message_; }
  Backtrace const& backtrace() const { return backtrace_; }
  std::string toString() const;

 private:
  std::string message_;
  Backtrace backtrace_;
};

/// The latest backtraces of the process with their messages, those of all exceptions of the library
/// among them, also of exceptions that were caught and swallowed. Off until it is enabled; free of
/// cost while off. Any thread may use it. Its lock is not recursive: a stream given to `printAll`
/// must not throw an exception of the library.
class BacktraceTracker {
 public:
  static bool enabled();
  /// Enabling makes room for 100 records, if there is none. Disabling keeps records, and the room
  /// with them.
  static void enabledIs(bool enabled) noexcept;
  static unsigned capacity();
  /// Keeps the newest records. Must be enabled, and not be given 0: both are assertions. Throws
  /// std::bad_alloc with nothing changed.
  static void capacityIs(unsigned capacity);
  /// Records an entry while enabled; a full buffer loses its oldest one.
  static void backtraceIs(std::string const& message, Backtrace const& backtrace);
  /// The same with the stack as it is here.
  static void backtraceIs(std::string const& message);
  /// Copies, oldest first.
  static std::vector<TrackedBacktrace> tracked() noexcept;
  /// Drops all records; while disabled the room with them.
  static void clear();
  /// Writes all records, oldest first, and flushes.
  static void printAll(std::ostream& stream) noexcept;
};

}  // namespace Brelo
