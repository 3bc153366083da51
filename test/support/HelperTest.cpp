#include "support/HelperTest.h"

#include <regex>

namespace BreloTest {

std::string HelperTest::withoutPlaces(std::string text) {
  for (auto const& [pattern, replacement] :
       {std::pair{"\n", "|"},
        {"Brelo/\\w+/\\w+\\.cpp:\\d+: |\\b(\\w+::)+~?\\w+\\(\\) ", ""},
        {"fd:\\d+", "fd:N"},
        {"\\b0 ([^|]*)\\|Brelo::(\\w+)Exception\\(\"\\1\"\\)$", "$2: $1"}})
    text = std::regex_replace(text, std::regex(pattern), replacement);
  return text;
}

}  // namespace BreloTest
