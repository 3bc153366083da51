// Sockets that the service manager listens at for this process: the descriptors from 3 on, their
// number in LISTEN_FDS, their names in LISTEN_FDNAMES, both meant for the process LISTEN_PID.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <vector>

#include "BreloDaemon/internal/ListenSocket.h"

namespace BreloDaemon {

namespace {

constexpr int firstDescriptor = 3;

std::string_view environment(char const* name) {
  char const* const value = ::secure_getenv(name);
  return value == nullptr ? "" : value;
}

/// -1 if it is no number.
int number(std::string_view text) {
  int value = -1;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() ? value : -1;
}

std::vector<std::string> split(std::string_view names) {
  std::vector<std::string> all;
  while (!names.empty()) {
    auto const end = std::min(names.find(':'), names.size());
    all.emplace_back(names.substr(0, end));
    names.remove_prefix(std::min(end + 1, names.size()));
  }
  return all;
}

/// By descriptor, what has been given out.
class GivenOut {
 public:
  bool take(int fd) {
    std::lock_guard<std::mutex> const guard(mutex_);
    if (std::find(fds_.begin(), fds_.end(), fd) != fds_.end()) return false;
    fds_.push_back(fd);
    return true;
  }

 private:
  std::mutex mutex_;
  std::vector<int> fds_;
};

}  // namespace

std::vector<Descriptor> takeHandedOverSockets(std::string const& name) {
  static GivenOut givenOut;
  std::vector<Descriptor> sockets;
  if (number(environment("LISTEN_PID")) != ::getpid()) return sockets;
  int const count = number(environment("LISTEN_FDS"));
  auto const names = split(environment("LISTEN_FDNAMES"));
  for (int i = 0; i < count; ++i) {
    int const fd = firstDescriptor + i;
    bool const named = static_cast<std::size_t>(i) < names.size();
    if (!name.empty() && (!named || names[static_cast<std::size_t>(i)] != name)) continue;
    if (::fcntl(fd, F_GETFD) < 0 || !givenOut.take(fd)) continue;
    sockets.emplace_back(fd);
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
  return sockets;
}

}  // namespace BreloDaemon
