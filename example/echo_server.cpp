// Sends all clients back what they send. It meets what a daemon meets: clients that are slow, idle
// or gone, no descriptors left, and the signal that ends it.
//
//   build/release/example/echo_server [ADDRESS]    then, for instance: nc 127.0.0.1 7000
#include <chrono>
#include <exception>
#include <iostream>
#include <string_view>

#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/Listener.h"

using namespace std::chrono_literals;
using BreloDaemon::Stream;

int main(int argc, char** argv) try {
  BreloDaemon::Daemon daemon("echo");
  BreloDaemon::Listener listener(daemon.scheduler(), argc > 1 ? argv[1] : "127.0.0.1:7000",
                                 [](Stream& client) {
                                   client.idleLimitIs(60s);
                                   client.receive([&client](std::string_view bytes) {
                                     client.send(bytes);
                                     return bytes.size();
                                   });
                                 });
  std::cout << "listening on " << listener.addresses().front() << std::endl;
  return daemon.run();
} catch (std::exception const& error) {
  std::cerr << "echo: " << error.what() << "\n";
  return 1;
}
