// Runs the code of the migration pages, each on a thread of its own, since a thread's backend is
// chosen once.
#include <iostream>
#include <thread>

#include "MigrationSnippets.h"

int main() {
  for (auto* const program : {fromLibevent, fromLibuv, fromAsio})
    std::thread(program).join();
  std::cout << "all have run\n";
}
