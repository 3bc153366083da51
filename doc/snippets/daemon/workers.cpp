// The code of doc/daemon/workers.md.
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "BreloDaemon/Daemon.h"
#include "BreloDaemon/WorkerPool.h"
#include "DaemonSnippets.h"

namespace {

std::string readWhole(std::string const& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

void blockingWork() {
  BreloDaemon::Daemon daemon("mydaemon");
  std::string text;

  BreloDaemon::WorkerPool pool(daemon.scheduler(), Brelo::TaskPriority::normal, "files", 2, 100);
  bool const taken = pool.submit([] { return readWhole("/etc/hostname"); },
                                 [&](BreloDaemon::Outcome<std::string>&& outcome) {
                                   daemon.stop();
                                   if (!outcome.error()) text = std::move(outcome.get());
                                 });

  if (!taken) std::cout << "too much waits\n";
  daemon.run();
}
