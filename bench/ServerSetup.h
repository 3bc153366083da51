#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Bench {

// The server's side of the connections of one run, and the processes of its clients. What fails
// throws `std::system_error`.

/// Listens on the loopback address, at a port that the kernel chooses.
class Listener {
 public:
  Listener();
  Listener(Listener const&) = delete;
  Listener& operator=(Listener const&) = delete;
  ~Listener();

  int port() const { return port_; }
  /// A connection: non-blocking, without delay, and closed by a reset, so that thousands of runs
  /// leave no port in use. Waits for it, but not for ever.
  int accept() const;

 private:
  int fd_;
  int port_;
};

/// The accepted connections, which it closes.
class Connections {
 public:
  Connections() = default;
  Connections(Connections const&) = delete;
  Connections& operator=(Connections const&) = delete;
  ~Connections();

  void accept(Listener const& listener, std::size_t count);
  std::vector<int> const& fds() const { return fds_; }

 private:
  std::vector<int> fds_;
};

/// This program once more, as a process of clients (see ServerClient.h). It ends with the object.
class ClientProcess {
 public:
  ClientProcess(std::string role, Listener const& listener, std::size_t number);
  ClientProcess(ClientProcess const&) = delete;
  ClientProcess& operator=(ClientProcess const&) = delete;
  ~ClientProcess();

  /// Waits for what the clients write. False if they have gone without it.
  bool read(void* data, std::size_t size) const;

 private:
  pid_t pid_;
  int output_;
};

/// Binds the calling thread to the first, or the last, of the processors that it may use, so that
/// the server and its clients never share one. Left to itself, the kernel sometimes puts them on
/// one and sometimes on two, and with that changes what a request costs.
/// @{
void useFirstProcessor();
void useLastProcessor();
/// @}

/// Raises this process's limit if need be; false if the descriptors cannot be had.
bool mayOpenDescriptors(std::size_t count);

}  // namespace Bench
