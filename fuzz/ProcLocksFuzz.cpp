#include <algorithm>

#include "Brelo/system/ProcText.h"
#include "Check.h"

// The first line is the process id, the rest the text that it is looked for in.
int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text = BreloFuzz::toText(data, size);
  std::string const pid = text.substr(0, text.find('\n'));
  std::string const locks = text.substr(pid.size());
  auto const holds = [&locks](std::string const& part) {
    return std::search(locks.begin(), locks.end(), part.begin(), part.end()) != locks.end() ||
           part.empty();
  };
  BreloFuzz::check(Brelo::Impl::mayHoldLock(locks, pid) == holds(pid));
  BreloFuzz::check(Brelo::Impl::listsLock(locks) == (holds("OFDLCK") || holds("POSIX")));
  return 0;
}
