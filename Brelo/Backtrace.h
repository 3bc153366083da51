#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "Brelo/Export.h"

namespace Brelo {

/// A record of the calling thread's stack: the instruction pointers of up to 100 frames,
/// innermost first, with the thread and the time. It holds no pointer and no heap data, so it
/// is copied as one block. Any thread may take one; symbols are looked up only by `pretty()`.
class BRELO_EXPORT Backtrace {
 public:
  /// Takes the stack at once if `capture` is set; else the record is empty and its time is
  /// positive infinity.
  [[gnu::noinline]] explicit Backtrace(bool capture);

  /// Replaces the record by the stack as it is here; the first entry is the caller. Deeper
  /// stacks are cut at the 100 innermost frames; a walk that fails keeps what it has got.
  [[gnu::noinline]] void unwind();
  /// A headline with time and thread, then a line for each frame: object file, mangled symbol
  /// with offset, address. Without an exported symbol the offset is that in the object. A call that
  /// does not return counts to the function that it ends.
  std::string pretty() const;

  std::uint32_t count() const { return count_; }   ///< of frames, 0 to 100
  void* const* frames() const { return frames_; }  ///< `count()` instruction pointers

  /// 0 if the environment variable BRELO_BACKTRACE_VERBOSITY is exactly "0", else 1. For clients:
  /// the library's own texts do not depend on it.
  static int verbosity();

 private:
  static constexpr int maxFrames = 100;

  void* frames_[maxFrames];
  std::uint32_t count_ = 0;
  std::int32_t tid_;
  double timestamp_;  // Brelo::time()
};

/// An entry of the BacktraceTracker; a plain value.
class BRELO_EXPORT TrackedBacktrace {
 public:
  /// Copies both.
  TrackedBacktrace(std::string const& message, Backtrace const& backtrace)
      : message_(message), backtrace_(backtrace) {}

  std::string const& message() const { return message_; }    ///< as it was given
  Backtrace const& backtrace() const { return backtrace_; }  ///< as it was given
  /// The message in a line of its own, then the backtrace's text.
  std::string toString() const;

 private:
  std::string message_;
  Backtrace backtrace_;
};

/// The latest backtraces of the process with their messages, those of all exceptions of the library
/// among them, also of exceptions that were caught and swallowed. Off until it is enabled; free of
/// cost while off. Any thread may use it, static destructors and what outlives them too, as may a
/// forked child.
class BRELO_EXPORT BacktraceTracker {
 public:
  /// False at first.
  static bool enabled();
  /// Enabling makes room for 100 records, if there is none. Disabling keeps records, and the room
  /// with them.
  static void enabledIs(bool enabled) noexcept;
  /// How many records there is room for; 0 while it is disabled and has none.
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
  /// Writes all records, oldest first, and flushes. What is recorded meanwhile is not among them.
  static void printAll(std::ostream& stream) noexcept;
};

}  // namespace Brelo
