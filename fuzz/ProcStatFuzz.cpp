#include "Brelo/system/ProcText.h"
#include "Check.h"

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text = BreloFuzz::toText(data, size);
  std::string const fields = Brelo::Impl::fieldsBehindCommand(text);
  BreloFuzz::check(fields.find(')') == std::string::npos);
  BreloFuzz::check(text.compare(size - fields.size(), std::string::npos, fields) == 0);
  std::size_t length = 0;
  for (std::string const& token : Brelo::Impl::splitAtBlanks(fields)) {
    BreloFuzz::check(!token.empty() && token.find(' ') == std::string::npos);
    length += token.size();
  }
  BreloFuzz::check(length <= fields.size());
  return 0;
}
