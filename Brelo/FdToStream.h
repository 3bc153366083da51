#pragma once

#include <boost/iostreams/device/file_descriptor.hpp>
#include <boost/iostreams/stream.hpp>

#include "Brelo/Export.h"

namespace Brelo {

/// An output stream on a blocking descriptor, with a buffer of 4096 bytes.
///
/// A descriptor that is not open, or is in non-blocking mode, is an assertion: the stream has no
/// way to wait. What is written is out at the latest when the stream goes; a failed write shows in
/// the stream's state.
class BRELO_EXPORT FdToStream
    : public boost::iostreams::stream<boost::iostreams::file_descriptor_sink> {
 public:
  /// A stream on nothing.
  FdToStream() = default;
  /// With `closeFd` the descriptor is closed when the stream goes.
  FdToStream(int fd, bool closeFd) { fdIs(fd, closeFd); }

  /// Opens a stream on nothing.
  void fdIs(int fd, bool closeFd);
};

}  // namespace Brelo
