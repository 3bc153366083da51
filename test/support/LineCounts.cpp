// In builds that count which lines run: has the counts written where a process is aborted, or ends
// without its exit handlers, in death tests and forked children. Each library keeps counts of its
// own, and has a copy of this; the copies ask one another by their signal handlers.
#include "support/LineCounts.h"

#include <csignal>

extern "C" void __gcov_dump();

namespace {

struct sigaction nextForAborts;
struct sigaction nextForEnds;

void writeCounts(int signal) {
  __gcov_dump();
  auto const& next = signal == SIGABRT ? nextForAborts : nextForEnds;
  bool const isHandler = next.sa_handler != SIG_DFL && next.sa_handler != SIG_IGN;
  if (isHandler) next.sa_handler(signal);
}

[[gnu::constructor]] void installed() {
  struct sigaction action {};
  action.sa_handler = writeCounts;
  sigaction(SIGABRT, &action, &nextForAborts);
  sigaction(BreloTest::countsSignal(), &action, &nextForEnds);
}

}  // namespace
