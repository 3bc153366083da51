// Runs the code of the daemon kit's pages.
#include <iostream>

#include "DaemonSnippets.h"

int main() {
  daemonFrame();
  functions();
  streams();
  listeners();
  connectors();
  postsFromThreads();
  blockingWork();
  signalsAsRuns();
  childPrograms();
  serviceManager();
  std::cout << "all have run\n";
}
