// A client's daemon: what it needs of the kit, and of the runtime beneath, has to be found by its
// own link.
#include <chrono>
#include <iostream>
#include <string_view>

#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/FunctionTimer.h"
#include "BreloDaemon/Listener.h"
#include "BreloDaemon/Mailbox.h"

using namespace std::chrono_literals;

int main() {
  BreloDaemon::Daemon daemon("consumer");
  BreloDaemon::Listener listener(daemon.scheduler(), "127.0.0.1:0",
                                 [](BreloDaemon::Stream& client) {
                                   client.receive([&client](std::string_view bytes) {
                                     client.send(bytes);
                                     return bytes.size();
                                   });
                                 });
  BreloDaemon::Mailbox mailbox(daemon.scheduler(), Brelo::TaskPriority::normal, "mailbox");
  BreloDaemon::FunctionTimer timer(daemon.scheduler(), Brelo::TaskPriority::normal, "timer",
                                   [&] { mailbox.sender().post([&] { daemon.stop(); }); });
  timer.once(1ms);
  int const status = daemon.run();
  std::cout << (status == 0 && listener.port() != 0 ? "consumer: done\n" : "consumer: wrong\n");
  return status;
}
