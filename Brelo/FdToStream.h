#pragma once

#include <memory>
#include <ostream>

#include "Brelo/Export.h"

namespace Brelo {

/// An output stream on a blocking descriptor, with a buffer of 4096 bytes.
///
/// A descriptor that is not open, or is in non-blocking mode, is an assertion: the stream has no
/// way to wait. What is written is out at the latest when the stream goes; interrupted and short
/// writes are gone on with, a failed one shows in the stream's state and loses what it had to
/// write.
class BRELO_EXPORT FdToStream : public std::ostream {
 public:
  /// A stream on nothing: every write fails.
  FdToStream();
  /// With `closeFd` the descriptor is closed when the stream goes.
  FdToStream(int fd, bool closeFd);
  ~FdToStream() override;

  /// Opens a stream on nothing.
  void fdIs(int fd, bool closeFd);

 private:
  class Buffer;

  std::unique_ptr<Buffer> buffer_;
};

}  // namespace Brelo
