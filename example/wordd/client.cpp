// wordd-client PORT: streams its standard input to wordd and prints the answer.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <system_error>

#include "BreloDaemon/Descriptor.h"

namespace {

/// The result of a system call, or its error as a std::system_error.
template <class Result>
Result checked(Result result, char const* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

void copy(int from, int to) {
  std::array<char, 64 << 10> buffer;
  while (ssize_t const got = checked(::read(from, buffer.data(), buffer.size()), "read")) {
    for (ssize_t done = 0; done < got;) {
      done +=
          checked(::write(to, buffer.data() + done, static_cast<std::size_t>(got - done)), "write");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: wordd-client PORT\n";
    return 2;
  }
  try {
    BreloDaemon::Descriptor const socket(
        checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    checked(::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address),
            "connect");
    copy(STDIN_FILENO, socket.get());
    checked(::shutdown(socket.get(), SHUT_WR), "shutdown");
    copy(socket.get(), STDOUT_FILENO);
  } catch (std::exception const& error) {
    std::cerr << "wordd-client: " << error.what() << "\n";
    return 1;
  }
}
