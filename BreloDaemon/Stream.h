#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "Brelo/Export.h"
#include "Brelo/TaskPriority.h"
#include "BreloDaemon/Descriptor.h"

namespace Brelo {
class TaskScheduler;
}

namespace BreloDaemon {

class StreamTask;

/// Why a stream has ended.
enum class StreamEnd : std::uint8_t {
  closed,        ///< `close()`; all has been sent
  aborted,       ///< `abort()`
  peerClosed,    ///< the input came to its end, and all has been sent
  idle,          ///< nothing has moved for `idleLimitIs`
  receiveLimit,  ///< the bytes that nobody consumed have reached `receiveLimitIs`
  failed,        ///< a call or an allocation failed; the error code tells which way
  threw,         ///< a callback of the stream let an exception pass
};

/// The name of the value.
BRELO_EXPORT char const* toString(StreamEnd reason);

/// A buffered connection: bytes received are handed to a callback, bytes sent go out as the other
/// side takes them. Works on any descriptor that can be polled: sockets, pipes, terminals.
///
/// It is one task, whose runs read, write and call the callbacks, and whose work counts are bytes.
/// Owned by whoever made it, as a rule through a shared pointer, and closed at once when let go
/// of, without a callback. It belongs to the scheduler's thread. Every callback may call any
/// operation, let go of the stream, or throw: the stream then ends, and the exception goes on to
/// the scheduler. No callback is called from inside of an operation.
///
/// An idle one takes 880 bytes on the host and 1,000 on libevent, the watch of its descriptor
/// included, and what its callbacks capture. Its buffers exist only while they hold something;
/// reads and the sends of a run share two of 64 KiB of the thread.
class BRELO_EXPORT Stream : public std::enable_shared_from_this<Stream> {
 public:
  /// Returns how many of the bytes it has consumed.
  using ReceiveHandler = std::function<std::size_t(std::string_view bytes)>;
  /// Is told why, with an error code for `StreamEnd::failed`.
  using EndHandler = std::function<void(StreamEnd reason, std::error_code error)>;

  /// On an open descriptor, which becomes non-blocking; none is an assertion. Names are shared by
  /// streams of the same one. What the platform refuses throws `std::system_error`.
  Stream(std::shared_ptr<Brelo::TaskScheduler> scheduler, Brelo::TaskPriority priority,
         std::string const& name, Descriptor descriptor);
  Stream(Stream const&) = delete;
  Stream& operator=(Stream const&) = delete;
  ~Stream();

  /// Who gets what is received: all of it that has not been consumed yet. The handler returns how
  /// much it has consumed; the rest comes again, together with the next bytes. The view ends with
  /// the call. A new handler, or the end of a pause, brings what is kept at once. Without a
  /// handler nothing is read, and the end of the input is not seen.
  void receive(ReceiveHandler handler);
  /// A rest of that size or more ends the stream; 1 MiB at first. To be larger than the largest
  /// message that a handler wants to see whole.
  void receiveLimitIs(std::size_t bytes);
  /// Keeps reading off. It does not end a pause that the water marks make.
  void readingPausedIs(bool paused);

  /// Takes the bytes over, those of several views as if they were one. Inside of the stream's
  /// callbacks they are gathered and go out at the end of the run, elsewhere at once; what the
  /// kernel does not take follows by itself. False if the stream has ended, is closing, or has
  /// shut its output, or has just failed: the bytes are then dropped.
  /// @{
  bool send(std::string_view bytes);
  bool send(std::initializer_list<std::string_view> views);
  bool send(std::string_view const* views, std::size_t count);
  /// @}
  /// Bytes taken over that the kernel has not.
  std::size_t unsent() const;
  /// With `high` bytes or more unsent, reading pauses until there are at most `low`, the smaller
  /// number. 16 and 64 KiB at first. `send` goes on taking bytes above it.
  void waterMarksIs(std::size_t low, std::size_t high);
  /// Called when at most `low` bytes are unsent after there were `high`: for who sends by
  /// themselves, until `unsent()` has reached the mark.
  void onDrained(std::function<void()> handler);

  /// Sends what is unsent, then closes. Nothing is received any more. A peer that does not read
  /// makes it wait: have an idle limit.
  void close();
  /// Closes at once; what is unsent is dropped.
  void abort();
  /// Sends what is unsent, then tells the peer the end of the output; goes on receiving. Other
  /// descriptors than sockets are closed, as there is nobody to tell in another way.
  void shutdownSend();
  /// Whether the stream goes on sending after the end of its input, until it is closed; false at
  /// first: the end of the input is then as `close()`, but for the reason.
  void halfOpenIs(bool halfOpen);
  /// Called at the end of the input, after all that came before it.
  void onReceiveEnd(std::function<void()> handler);
  /// Ends the stream when no byte has moved in either direction for so long, a peer that never
  /// reads or a pause included; never at first. Zero or less is an assertion.
  void idleLimitIs(std::chrono::nanoseconds limit);
  /// Called once, whatever ends the stream; with the error of `StreamEnd::failed`. It is closed by
  /// then, and afterwards holds no callback.
  void onEnd(EndHandler handler);
  /// No more than to be told of the end is left.
  bool ended() const;

  std::uint64_t bytesReceived() const;  ///< from the other side, consumed or not
  std::uint64_t bytesSent() const;      ///< that the kernel has taken
  /// The other side as "127.0.0.1:7000", "[::1]:7000", "unix:/path" or "unix:"; empty if it has
  /// gone, or if it is no socket.
  std::string peerName() const;
  int descriptor() const;  ///< -1 after the end

 private:
  friend class StreamKeeper;

  std::shared_ptr<StreamTask> task_;
};

}  // namespace BreloDaemon
