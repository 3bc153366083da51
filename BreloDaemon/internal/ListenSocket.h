#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "BreloDaemon/Descriptor.h"

namespace BreloDaemon {

/// A socket file that is removed with the object, if it is still the one that was made here.
class SocketFile {
 public:
  SocketFile() = default;  ///< none
  /// Of the file that stands at `path` now.
  explicit SocketFile(std::string path);
  SocketFile(SocketFile&& other) noexcept;
  SocketFile& operator=(SocketFile other) noexcept;
  ~SocketFile() { remove(); }

  void remove();

 private:
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  pid_t process_ = 0;  // a forked child leaves the file to its parent
};

/// A socket that listens, non-blocking.
struct ListenSocket {
  Descriptor fd;
  SocketFile file;
};

struct ListenSettings {
  int backlog;
  bool reusePort;
  std::optional<mode_t> unixMode;
};

/// Listens at an address in the form of Listener.h, which may stand for several sockets. Throws
/// `std::system_error` with the address in its text.
std::vector<ListenSocket> listenAt(std::string const& address, ListenSettings const& settings);

/// The sockets that the service manager has handed to this process, those of `name` unless it is
/// empty; each is given out once.
std::vector<Descriptor> takeHandedOverSockets(std::string const& name);

}  // namespace BreloDaemon
