// The code of doc/daemon/listeners.md.
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <string_view>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/Listener.h"
#include "DaemonSnippets.h"

using namespace std::chrono_literals;
using namespace BreloDaemon;

namespace {

void echo(Stream& client) {
  client.idleLimitIs(60s);
  client.receive([&client](std::string_view bytes) {
    client.send(bytes);
    return bytes.size();
  });
}

}  // namespace

void listeners() {
  Daemon daemon("listeners");
  std::string const path = "/tmp/brelo-snippet-" + std::to_string(::getpid());
  ListenerOptions options;
  options.name = "echo";
  options.connectionsMax = 10'000;
  options.unixMode = 0660;
  Listener listener(daemon.scheduler(), {"127.0.0.1:0", "[::1]:0", path}, echo, options);
  listener.onStop([](Stream& client) {
    client.send("the server goes down\n");
    client.close();
  });

  if (listener.port() == 0 || listener.addresses().size() != 3) throw 1;
  daemon.stop();
  if (daemon.run() != 0 || ::access(path.c_str(), F_OK) == 0) throw 1;
}
