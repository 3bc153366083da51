#include <sstream>
#include <stdexcept>

#include "Brelo/system/ProcText.h"
#include "Check.h"

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text = BreloFuzz::toText(data, size);
  std::istringstream status(text);
  try {
    auto const title = Brelo::Impl::titleOf(status);
    bool const labelled = text.find("Name:") != std::string::npos;
    BreloFuzz::check(title.has_value() == labelled);
    if (title) {
      BreloFuzz::check(text.find(*title) != std::string::npos);
      BreloFuzz::check(!title->empty() && title->find('\n') == std::string::npos);
      for (char const end : {title->front(), title->back()})
        BreloFuzz::check(end != ' ' && end != '\t');
    }
  } catch (std::out_of_range const&) {
    BreloFuzz::check(text.find("Name:") != std::string::npos);
  }
  return 0;
}
