#include "SocketFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include "Checked.h"

namespace Wordd {

namespace {

using namespace std::chrono_literals;

constexpr int startTries = 100;
constexpr auto startDelay = 10ms;

Descriptor unixSocket() {
  return Descriptor(
      checked(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket"));
}

sockaddr_un addressOf(std::string const& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
  }
  path.copy(address.sun_path, path.size());
  return address;
}

/// Two daemons that start at once look at the path one after the other.
Descriptor lockDirectoryOf(std::string const& path) {
  auto const slash = path.rfind('/');
  std::string const directory =
      slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
  Descriptor lock(
      checked(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), directory));
  for (int left = startTries; ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0; --left) {
    if (left == 0 || errno != EWOULDBLOCK) checked(-1, directory);
    std::this_thread::sleep_for(startDelay);
  }
  return lock;
}

/// Removes the socket of a process that has gone.
void makeRoom(std::string const& path, sockaddr_un const& address) {
  struct stat found;
  if (::lstat(path.c_str(), &found) != 0 && errno == ENOENT) return;
  if (!S_ISSOCK(found.st_mode)) {
    throw std::system_error(EEXIST, std::generic_category(), path + " is not a socket");
  }
  Descriptor const probe = unixSocket();
  int const result =
      ::connect(probe.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address);
  if (result == 0 || errno == EAGAIN) {
    throw std::system_error(EADDRINUSE, std::generic_category(), path);
  }
  if (errno != ECONNREFUSED) checked(-1, path);
  checked(::unlink(path.c_str()), path);
}

}  // namespace

SocketFile::SocketFile(std::string path) : path_(std::move(path)), socket_(unixSocket()) {
  sockaddr_un const address = addressOf(path_);
  Descriptor const lock = lockDirectoryOf(path_);
  makeRoom(path_, address);
  checked(::bind(socket_.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address),
          path_);
  checked(::listen(socket_.get(), SOMAXCONN), "listen");
  struct stat made;
  checked(::lstat(path_.c_str(), &made), path_);
  device_ = made.st_dev;
  inode_ = made.st_ino;
}

SocketFile::SocketFile(SocketFile&& other) noexcept
    : path_(std::exchange(other.path_, {})),
      socket_(std::move(other.socket_)),
      device_(other.device_),
      inode_(other.inode_) {}

SocketFile::~SocketFile() {
  struct stat found;
  if (path_.empty() || ::lstat(path_.c_str(), &found) != 0) return;
  if (found.st_dev == device_ && found.st_ino == inode_) ::unlink(path_.c_str());
}

}  // namespace Wordd
