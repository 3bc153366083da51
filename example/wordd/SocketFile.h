#pragma once

#include <sys/types.h>

#include <string>

#include "Descriptor.h"

namespace Wordd {

/// The file of a Unix stream socket that listens. Nobody else's file is ever replaced or removed:
/// only a socket that no process serves any more makes room for it, and at the end it goes only if
/// it is still ours.
class SocketFile {
 public:
  /// Listens there. Throws std::system_error; EADDRINUSE if another process serves the path,
  /// EEXIST if something else than a socket stands there.
  explicit SocketFile(std::string path);
  SocketFile(SocketFile&& other) noexcept;
  SocketFile& operator=(SocketFile&&) = delete;
  ~SocketFile();

  /// Gives the listening socket to the caller, who closes it after the file has gone.
  Descriptor takeSocket() { return std::move(socket_); }

 private:
  std::string path_;  // empty after a move
  Descriptor socket_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace Wordd
