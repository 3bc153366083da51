// The code of doc/daemon/mailbox.md.
#include "BreloDaemon/Mailbox.h"

#include <string>
#include <thread>
#include <vector>

#include "BreloDaemon/Daemon.h"
#include "DaemonSnippets.h"

void postsFromThreads() {
  BreloDaemon::Daemon daemon("mydaemon");
  std::vector<std::string> lines;

  BreloDaemon::Mailbox mailbox(daemon.scheduler(), Brelo::TaskPriority::normal, "lines");
  std::thread reader([&, loop = mailbox.sender()] {
    for (std::string line : {"one", "two", "three"}) {
      bool const taken = loop.post([&, line = std::move(line)] { lines.push_back(line); });
      if (!taken) return;  // the mailbox has ended
    }
    loop.post([&] { daemon.stop(); });
  });

  daemon.run();
  reader.join();
}
