#include <algorithm>

#include "Brelo/system/ProcText.h"
#include "Check.h"

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text = BreloFuzz::toText(data, size);
  std::string const line = Brelo::Impl::commandLine(text);
  BreloFuzz::check(
      std::equal(line.begin(), line.end(), text.begin(), text.end(),
                 [](char made, char given) { return made == (given == '\0' ? ' ' : given); }));
  return 0;
}
