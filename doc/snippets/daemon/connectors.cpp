// The code of doc/daemon/connectors.md.
#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloDaemon/Connector.h"
#include "BreloDaemon/Listener.h"
#include "DaemonSnippets.h"

using namespace std::chrono_literals;
using namespace BreloDaemon;

void connectors() {
  auto const scheduler = Brelo::TaskSchedulerRoot::TaskSchedulerRootIs("root");
  Listener listener(scheduler, "127.0.0.1:0", [](Stream& client) {
    client.send("hello");
    client.close();
  });
  std::string const address = "localhost:" + std::to_string(listener.port());
  std::string got;

  Connector connector(scheduler);
  std::shared_ptr<Stream> upstream;
  connector.connect(address, [&](std::shared_ptr<Stream> made, std::error_code error) {
    if (error) return void(std::cerr << address << ": " << error.message() << '\n');
    upstream = std::move(made);
    upstream->receive([&](std::string_view bytes) {
      got += bytes;
      return bytes.size();
    });
  });

  double const limit = Brelo::time() + 10;
  while (got != "hello" && Brelo::time() < limit)
    Brelo::Platform::doEventLoopInWaitfor(0.01);
  if (got != "hello") throw 1;
}
