// Runs the code of the daemon kit's pages.
#include <iostream>

#include "DaemonSnippets.h"

int main() {
  daemonFrame();
  functions();
  streams();
  listeners();
  connectors();
  std::cout << "all have run\n";
}
