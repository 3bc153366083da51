#pragma once

#include <csignal>

namespace BreloTest {

inline int countsSignal() {
  return SIGRTMAX;
}

/// Before `_exit`, in builds that count which lines run: nothing else would write the counts.
inline void lineCountsWrite() {
#ifdef BRELO_LINE_COUNTS
  raise(countsSignal());
#endif
}

}  // namespace BreloTest
