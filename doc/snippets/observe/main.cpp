// Runs the code of the observatory's pages.
#include <iostream>

#include "ObserveSnippets.h"

int main() {
  monitors();
  stalls();
  crashes();
  statsServer();
  std::cout << "all have run\n";
}
