// Runs the code of the observatory's pages.
#include <iostream>

#include "ObserveSnippets.h"

int main() {
  monitors();
  std::cout << "all have run\n";
}
