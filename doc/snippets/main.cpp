// Runs the code of the guide.
#include <iostream>

#include "Snippets.h"

int main() {
  tasks();
  timers();
  groups();
  taskControls();
  endings();
  exports();
  traces();
  failures();
  reports();
  helpers();
  std::cout << "all have run\n";
}
